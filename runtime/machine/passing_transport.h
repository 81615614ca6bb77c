// A machine's transport in front of another one; forwards everything.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// A base class: derived classes override only what they change.
class PassingTransport : public MachineTransport {
 public:
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    transport_.start(std::move(request), std::move(handler));
  }
  size_t inFlight() const override { return transport_.inFlight(); }
  void setHeld(bool held) override { transport_.setHeld(held); }
  void wishDidChange() override { transport_.wishDidChange(); }
  void shutdown() override { transport_.shutdown(); }

 protected:
  /// `transport` outlives it.
  explicit PassingTransport(MachineTransport& transport) : transport_(transport) {}

  MachineTransport& transport_;
};

}  // namespace morvik::runtime
