// Keeps an erasure from leaving before its wish would survive a power cut.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "runtime/machine/machine.h"
#include "runtime/machine/passing_transport.h"
#include "runtime/privacy/wish_store.h"
#include "services/log.h"

namespace morvik::runtime {

/// How long an erasure waits at most: the wish must reach the service even if the device's disk takes nothing.
inline constexpr double kErasureHoldSeconds = 2;

/// Any thread.
class ErasureHold {
 public:
  /// All outlive it.
  ErasureHold(WishStore& wish, MachineLoop& main_loop, const services::Logger& logger);
  ~ErasureHold();
  ErasureHold(const ErasureHold&) = delete;
  ErasureHold& operator=(const ErasureHold&) = delete;

  /// An erasure may leave now.
  bool isOpen() const { return wish_.isOnDisk(); }
  /// Runs `leave` once: here and now if open, else in a later turn of the main queue, in call order, once it opens or
  /// kErasureHoldSeconds are up. Any number can wait.
  void whenOpen(kit::Block leave);
  /// How many wait.
  size_t waiting() const;
  /// Waiting blocks never run.
  void drop();

 private:
  struct Waiting {
    kit::Block leave;
    MachineLoop::TimerKey timer{};
  };

  [[nodiscard]] bool holdBack(kit::Block& leave);
  void open();
  void timeIsUp(uint64_t number);

  WishStore& wish_;
  MachineLoop& main_loop_;
  const services::Logger logger_;
  const std::shared_ptr<int> alive_ = std::make_shared<int>();  ///< null: a turn that still waits does nothing
  mutable std::mutex mutex_;                                    // guards what follows
  uint64_t last_number_ = 0;
  std::map<uint64_t, Waiting> waiting_;
};

/// A transport that holds erasures for that; everything else passes. `when_ended` runs before the handler of each, with
/// its result.
class ErasureHoldTransport final : public PassingTransport {
 public:
  using WhenEnded = std::function<void(const std::string& body)>;
  /// Both outlive it.
  ErasureHoldTransport(MachineTransport& transport, ErasureHold& hold, WhenEnded when_ended)
      : PassingTransport(transport), hold_(hold), when_ended_(std::move(when_ended)) {}

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override;
  size_t inFlight() const override { return hold_.waiting() + transport_.inFlight(); }
  void shutdown() override;

 private:
  ErasureHold& hold_;
  const WhenEnded when_ended_;
};

}  // namespace morvik::runtime
