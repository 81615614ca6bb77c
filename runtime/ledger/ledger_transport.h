// A machine's transport that reports to the ledger what leaves and when its handler runs.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "runtime/ledger/ledger_book.h"
#include "runtime/machine/machine.h"
#include "runtime/machine/passing_transport.h"

namespace morvik::runtime {

class LedgerTransport final : public PassingTransport {
 public:
  /// Both outlive it. `batch_leaves` is called on any thread with the number of activities of each batch that leaves;
  /// may be empty.
  LedgerTransport(MachineTransport& transport, LedgerBook& book,
                  std::function<void(size_t activities)> batch_leaves = {})
      : PassingTransport(transport), book_(book), batch_leaves_(std::move(batch_leaves)) {}

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override;

 private:
  LedgerBook& book_;
  const std::function<void(size_t activities)> batch_leaves_;
};

}  // namespace morvik::runtime
