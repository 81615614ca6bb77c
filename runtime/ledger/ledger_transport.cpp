#include "runtime/ledger/ledger_transport.h"

#include <cstdint>
#include <optional>
#include <utility>

namespace morvik::runtime {
namespace {

/// Lives as long as a handler runs.
class RunningHandler {
 public:
  RunningHandler(LedgerBook& book, uint64_t exchange, LedgerDeparted departed)
      : book_(book), exchange_(exchange), departed_(departed) {
    book_.handlerBegins(exchange_);
  }
  ~RunningHandler() { book_.handlerEnded(exchange_, departed_); }
  RunningHandler(const RunningHandler&) = delete;
  RunningHandler& operator=(const RunningHandler&) = delete;

 private:
  LedgerBook& book_;
  const uint64_t exchange_;
  const LedgerDeparted departed_;
};

}  // namespace

void LedgerTransport::start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) {
  const uint64_t exchange = book_.requestStarts(request);
  if (exchange == 0)
    return transport_.start(std::move(request), std::move(handler));
  if (const auto activities = batch_leaves_ ? book_.activitiesOfBatch(exchange) : std::nullopt)
    request.when_it_leaves = [leaves = std::move(request.when_it_leaves), batch_leaves = batch_leaves_,
                              count = *activities] {
      if (leaves)
        leaves();
      batch_leaves(count);
    };
  transport_.start(
      std::move(request), [&book = book_, exchange, handler = std::move(handler)](kit::TransportOutcome outcome) {
        const RunningHandler running(book, exchange, outcome.isNotSent() ? LedgerDeparted::kNo : LedgerDeparted::kYes);
        handler(std::move(outcome));
      });
}

}  // namespace morvik::runtime
