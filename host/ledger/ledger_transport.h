// A machine's transport that tells the ledger what leaves, and when its handler runs.
#pragma once

#include <cstddef>
#include <functional>

#include "host/ledger/ledger_book.h"
#include "host/machine/machine.h"

namespace morvik::host {

class LedgerTransport final : public MachineTransport {
 public:
  /// Both outlive it.
  LedgerTransport(MachineTransport& transport, LedgerBook& book) : transport_(transport), book_(book) {}

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override;
  size_t inFlight() const override { return transport_.inFlight(); }
  void shutdown() override { transport_.shutdown(); }

 private:
  MachineTransport& transport_;
  LedgerBook& book_;
};

}  // namespace morvik::host
