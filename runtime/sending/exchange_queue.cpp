#include "runtime/sending/exchange_queue.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/sending/host_queues.h"

namespace morvik::runtime {
namespace {

using kit::WhenHeld;

/// The host of a URL, with the port: between "//" and the path.
std::string hostOf(std::string_view url) {
  const size_t slashes = url.find("//");
  const size_t begin = slashes == std::string_view::npos ? 0 : slashes + 2;
  const size_t end = std::min(url.find_first_of("/?#", begin), url.size());
  return std::string(url.substr(begin, end - begin));
}

}  // namespace

/// Requests that have left their turn. Any thread.
class ExchangeQueue::Line : public std::enable_shared_from_this<Line> {
 public:
  Line(std::unique_ptr<MachineNetwork> network, std::shared_ptr<HandlerDelivery> delivery,
       std::function<bool()> is_forgotten)
      : network_(std::move(network)), delivery_(std::move(delivery)), is_forgotten_(std::move(is_forgotten)) {}

  void add(kit::Request request, TransportHandler handler) {
    {
      const std::scoped_lock hold(mutex_);
      if (is_closed_)
        return;
      const bool passes = request.when_held == WhenHeld::kPasses;
      std::string host = hostOf(request.url);
      queues_.add(host, {host, std::move(request), std::move(handler)}, passes);
    }
    goOn();
  }
  void setHeld(bool held) {
    {
      const std::scoped_lock hold(mutex_);
      is_held_ = held;
    }
    goOnWithout();
  }
  /// Lets requests leave that may, and ends those that may no longer.
  void goOn() {
    {
      const std::scoped_lock hold(mutex_);
      // A running goOn() covers this; so a network that answers at once does not nest calls.
      if (is_going_on_)
        return;
      is_going_on_ = true;
    }
    try {
      while (takeStep()) {
      }
    } catch (const std::exception&) {
      // No memory, say. The next occasion continues; the callers cannot be told.
      const std::scoped_lock hold(mutex_);
      is_going_on_ = false;
    }
  }
  /// goOn(). When it returns, nothing that was admitted under the previous state is still on its way out.
  void goOnWithout() {
    goOn();
    const std::scoped_lock hold(leaving_mutex_);
  }
  void close() {
    {
      const std::scoped_lock hold(mutex_);
      is_closed_ = true;
    }
    network_->shutdown();
    HostQueues<Waiting> dropped;  // destroyed outside of the lock
    const std::scoped_lock hold(mutex_);
    std::swap(dropped, queues_);
  }

 private:
  struct Waiting {
    std::string host;
    kit::Request request;
    TransportHandler handler;
  };
  struct UnderWay {
    std::string host;
    TransportHandler handler;
    std::atomic<bool> is_over{false};
  };

  /// False: nothing is left to do now; the next caller goes on.
  bool takeStep() {
    const std::scoped_lock leaves(leaving_mutex_);
    std::optional<Waiting> leaving;
    {
      const std::scoped_lock hold(mutex_);
      const bool is_forgotten = is_forgotten_();
      // Within the lock, so that a caller that lifts a hold comes after them in the main queue.
      for (Waiting& waiting : takeThoseThatMayNotLeave(is_forgotten))
        delivery_->deliver(std::move(waiting.handler), {});
      if (!is_closed_)
        leaving = queues_.takeReady(is_held_ || is_forgotten);
      is_going_on_ = leaving.has_value();
    }
    if (!leaving)
      return false;
    begin(*std::move(leaving));
    return true;
  }
  std::vector<Waiting> takeThoseThatMayNotLeave(bool is_forgotten) {
    if (!is_held_ && !is_forgotten)
      return {};
    return queues_.takeWaitingIf([is_forgotten](const Waiting& waiting) {
      return is_forgotten || waiting.request.when_held == WhenHeld::kEnds;
    });
  }
  void begin(Waiting waiting) {
    const auto under_way = std::make_shared<UnderWay>();
    under_way->host = std::move(waiting.host);
    under_way->handler = std::move(waiting.handler);
    if (const auto leaves = std::exchange(waiting.request.when_it_leaves, nullptr))
      leaves();
    if (waiting.request.when_held != WhenHeld::kPasses)
      waiting.request.may_leave = [is_forgotten = is_forgotten_] { return !is_forgotten(); };
    // A network that never releases what it was handed keeps nothing of this alive.
    try {
      network_->begin(std::move(waiting.request), [self = weak_from_this(), under_way](kit::TransportOutcome outcome) {
        if (const auto line = self.lock())
          line->ended(*under_way, std::move(outcome));
      });
    } catch (const std::exception& exception) {
      ended(*under_way, {.response = std::nullopt,
                         .error = kit::Error{std::string("no request can be sent: ") + exception.what()}});
    }
  }
  void ended(UnderWay& exchange, kit::TransportOutcome outcome) {
    if (exchange.is_over.exchange(true))
      return;
    {
      const std::scoped_lock hold(mutex_);
      if (is_closed_)
        return;
      queues_.ended(exchange.host);
    }
    delivery_->deliver(std::move(exchange.handler), std::move(outcome));
    goOn();
  }

  const std::unique_ptr<MachineNetwork> network_;
  const std::shared_ptr<HandlerDelivery> delivery_;
  const std::function<bool()> is_forgotten_;
  /// Held from asking whether a request may leave until it has left; taken before mutex_. A network may call back
  /// meanwhile.
  std::recursive_mutex leaving_mutex_;
  std::mutex mutex_;  // guards what follows
  HostQueues<Waiting> queues_;
  bool is_held_ = false;
  bool is_closed_ = false;
  bool is_going_on_ = false;
};

ExchangeQueue::ExchangeQueue(std::unique_ptr<MachineNetwork> network, TransportParts parts)
    : gate_(parts.gate),
      delivery_(std::make_shared<HandlerDelivery>(parts.main_queue)),
      line_(std::make_shared<Line>(std::move(network), delivery_, std::move(parts.is_forgotten))) {}

ExchangeQueue::~ExchangeQueue() {
  shutdown();
}

void ExchangeQueue::start(kit::Request request, TransportHandler handler) {
  if (!delivery_->admit())
    return;
  gate_.leave([line = line_, request = std::move(request), handler = std::move(handler)]() mutable {
    line->add(std::move(request), std::move(handler));
  });
}

void ExchangeQueue::setHeld(bool held) {
  line_->setHeld(held);
}

void ExchangeQueue::wishDidChange() {
  line_->goOnWithout();
}

void ExchangeQueue::shutdown() {
  const std::scoped_lock hold(shutdown_mutex_);
  // The network first, then the wait: a handler that does not return keeps nothing running.
  delivery_->close(0);
  line_->close();
  delivery_->close(kShutdownSeconds);
}

}  // namespace morvik::runtime
