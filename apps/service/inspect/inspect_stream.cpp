#include "apps/service/inspect/inspect_stream.h"

#include <utility>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::int64_t kSummariesAtOnce = 100;

std::string serverSentEvent(const std::string& name, const std::string& data) {
  return "event: " + name + "\ndata: " + data + "\n\n";
}

Json totalsJson(const Totals& totals) {
  return {{"requests", totals.requests},
          {"refused", totals.refused},
          {"recorded", totals.delivered + totals.duplicate},
          {"delivered", totals.delivered},
          {"duplicate", totals.duplicate},
          {"impressions", totals.impressions}};
}

Json ledgersJson(const Ledgers& ledgers) {
  return {{"devices", ledgers.size()}, {"told", ledgers.told()}};
}

class EventStream : public BodyStream {
 public:
  EventStream(const Inspected& inspected, std::unique_ptr<Watchers::Seat> seat, std::int64_t after,
              std::chrono::milliseconds sign_of_life)
      : inspected_(inspected), seat_(std::move(seat)), after_(after), sign_of_life_(sign_of_life) {}

  std::optional<std::string> next(const std::stop_token& stop) override {
    for (;;) {
      const std::uint64_t seen = inspected_.feed.version();
      std::string news = readNews();
      if (!news.empty())
        return news;
      if (!inspected_.feed.waitBeyond(seen, sign_of_life_, stop)) {
        if (stop.stop_requested())
          return std::nullopt;
        return ": still here\n\n";
      }
    }
  }

 private:
  std::string readNews() {
    std::string news;
    // Read first, sent last: no total counts a request that the watcher has not received.
    const std::string totals = jsonText(totalsJson(inspected_.store.totals()));
    const std::int64_t newest = inspected_.store.newestRequest();
    // A watcher with a larger number watched another store, before this service was restarted.
    if (after_ > newest || newest - after_ > kMaxCatchUp) {
      after_ = newest;
      news += serverSentEvent("gap", std::to_string(newest));
    }
    const std::vector<Json> summaries = inspected_.store.summariesAfter(after_, kSummariesAtOnce);
    for (const Json& summary : summaries) {
      after_ = summary.at("id");
      news += "id: " + std::to_string(after_) + "\n" + serverSentEvent("request", jsonText(summary));
    }
    addChoices(news);
    if (std::ssize(summaries) < kSummariesAtOnce)
      addWhenChanged(news, "totals", totals_, totals);
    return news;
  }

  void addChoices(std::string& news) {
    const std::lock_guard lock(inspected_.mutex);
    addWhenChanged(news, "behaviours", behaviours_, jsonText(inspected_.behaviours.summaries()));
    addWhenChanged(news, "ledgers", ledgers_, jsonText(ledgersJson(inspected_.ledgers)));
  }

  static void addWhenChanged(std::string& news, const char* name, std::string& last, std::string now) {
    if (now == last)
      return;
    news += serverSentEvent(name, now);
    last = std::move(now);
  }

  const Inspected inspected_;
  const std::unique_ptr<Watchers::Seat> seat_;
  std::int64_t after_;
  const std::chrono::milliseconds sign_of_life_;
  std::string behaviours_;
  std::string ledgers_;
  std::string totals_;
};

class WaitingListing : public BodyStream {
 public:
  WaitingListing(const Inspected& inspected, std::unique_ptr<Watchers::Seat> seat, const Page& page,
                 std::chrono::milliseconds patience)
      : inspected_(inspected),
        seat_(std::move(seat)),
        page_(page),
        until_(std::chrono::steady_clock::now() + patience) {}

  std::optional<std::string> next(const std::stop_token& stop) override {
    if (std::exchange(is_told_, true))
      return std::nullopt;
    for (;;) {
      const std::uint64_t seen = inspected_.feed.version();
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(until_ - std::chrono::steady_clock::now());
      if (isDue() || left.count() <= 0 || !inspected_.feed.waitBeyond(seen, left, stop))
        break;
    }
    return inspected_.store.requestsJson(page_);
  }

 private:
  bool isDue() const { return inspected_.store.newestRequest() > page_.after; }

  const Inspected inspected_;
  const std::unique_ptr<Watchers::Seat> seat_;
  const Page page_;
  const std::chrono::steady_clock::time_point until_;
  bool is_told_ = false;
};

}  // namespace

std::unique_ptr<Watchers::Seat> Watchers::take() {
  if (taken_.fetch_add(1) >= kMaxWatchers) {
    taken_.fetch_sub(1);
    throw Refusal(503, "already " + std::to_string(kMaxWatchers) + " watch", "the service's connections",
                  "close a page or end a script that waits");
  }
  return std::make_unique<Seat>(*this);
}

std::shared_ptr<BodyStream> makeEventStream(const Inspected& inspected, std::unique_ptr<Watchers::Seat> seat,
                                            std::int64_t after, std::chrono::milliseconds sign_of_life) {
  return std::make_shared<EventStream>(inspected, std::move(seat), after, sign_of_life);
}

std::shared_ptr<BodyStream> makeWaitingListing(const Inspected& inspected, std::unique_ptr<Watchers::Seat> seat,
                                               const Page& page, std::chrono::milliseconds patience) {
  return std::make_shared<WaitingListing>(inspected, std::move(seat), page, patience);
}

}  // namespace morvik_service
