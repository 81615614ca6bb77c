#include "apps/service/expect/waiter.h"

#include <algorithm>
#include <unordered_set>

#include "apps/service/expect/items.h"

namespace morvik_service {
namespace {

class Progress {
 public:
  explicit Progress(const Expectation& expectation)
      : expectation_(expectation), events_(expectation.expression.names(eventFields())) {}

  // True if nothing that may follow can change the outcome.
  bool isDecided() const { return outcome_.matched >= (expectation_.none ? 1 : expectation_.count); }

  void take(const Json& request) {
    for (const Item& item : itemsOf(request, events_)) {
      if (isDecided())
        return;
      takeItem(item);
    }
  }

  Outcome finish() && {
    outcome_.met = expectation_.none ? outcome_.matched == 0 : isDecided();
    return std::move(outcome_);
  }

 private:
  void takeItem(const Item& item) {
    Verdict verdict = expectation_.expression.evaluate([&](const FieldPath& path) { return readField(item, path); });
    const std::string identity = identityOf(item);
    if (verdict.misses == 0 && !identity.empty() && !matched_.insert(identity).second)
      return;
    ++outcome_.looked_at;
    if (verdict.misses > 0) {
      keepNearMiss({describeItem(item), std::move(verdict)});
      return;
    }
    ++outcome_.matched;
    if (outcome_.matches.size() < kNearMissesTold)
      outcome_.matches.push_back(describeItem(item));
  }

  void keepNearMiss(NearMiss miss) {
    auto& closest = outcome_.closest;
    const auto place = std::lower_bound(closest.begin(), closest.end(), miss, [](const NearMiss& a, const NearMiss& b) {
      return a.verdict.misses < b.verdict.misses;
    });
    closest.insert(place, std::move(miss));
    if (closest.size() > kNearMissesTold)
      closest.pop_back();
  }

  const Expectation& expectation_;
  const bool events_;
  std::unordered_set<std::string> matched_;
  Outcome outcome_;
};

}  // namespace

Outcome waitFor(const Expectation& expectation, const RequestSource& source, const SteadyClock& clock) {
  const std::chrono::milliseconds until = clock() + expectation.within;
  Progress progress(expectation);
  std::int64_t after = expectation.after;
  while (!progress.isDecided()) {
    const std::chrono::milliseconds left = std::max(until - clock(), std::chrono::milliseconds(0));
    const Json page = source(after, left);
    for (const Json& request : page.at("requests"))
      progress.take(request);
    after = page.at("next_after");
    // Everything that has arrived is examined, even if that takes longer.
    if (page.at("requests").empty() && left.count() == 0)
      break;
  }
  return std::move(progress).finish();
}

}  // namespace morvik_service
