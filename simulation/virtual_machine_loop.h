// The kit's two queues on a virtual loop.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "runtime/machine/machine.h"
#include "testing/virtual_loop.h"

namespace morvik::simulation {

/// The main queue. Its main thread is the one that runs the virtual loop; a block posted outside a turn waits for its
/// turn. `loop` must outlive it; blocks still waiting there after its destruction do nothing.
class VirtualMainLoop final : public runtime::MachineLoop {
 public:
  VirtualMainLoop(testing::VirtualLoop& loop, const services::Logger& logger);
  ~VirtualMainLoop() override;

  void setFrame(runtime::TurnFrame frame) override;
  std::optional<kit::Error> open() override;
  /// Lets the virtual loop run what waits here; no time passes.
  bool drain(std::chrono::steady_clock::time_point deadline) override;
  void cease() override;
  bool waitUntilIdle(std::chrono::steady_clock::time_point) override { return !isInTurn(); }
  bool stop() override;
  void letGo() override {}
  void async(kit::Block block) override;
  void after(double delay_seconds, kit::Block block) override;
  TimerKey schedule(double delay_seconds, kit::Block block) override;
  void cancel(TimerKey timer) override;
  void runOnMain(kit::Block block) override;
  void afterThisTurn(kit::Block block) override;
  bool isMainThread() const override;
  bool isInTurn() const override;
  runtime::MainLoopCounts counts() const override;
  int pollDescriptor() const override { return -1; }
  int pollTimeoutMilliseconds() const override { return -1; }
  void dispatch() override {}
  bool canPump() const override;
  /// If nothing waits, time passes up to the next timer.
  void pumpFor(double max_seconds, const std::function<bool()>& is_done) override;
  /// No time passes.
  bool runWithin(double max_seconds, kit::Block block) override;

 private:
  struct State;
  kit::Block asTurn(kit::Block block) const;

  testing::VirtualLoop& loop_;
  const uint64_t process_;  ///< the number of kills before it
  const std::shared_ptr<State> state_;
};

/// The background queue. Otherwise like VirtualMainLoop.
class VirtualBackground final : public runtime::MachineBackground {
 public:
  VirtualBackground(testing::VirtualLoop& loop, const services::Logger& logger);
  ~VirtualBackground() override;

  void setFrame(runtime::TurnFrame frame) override;
  void setWhenIdle(kit::Block hook) override;
  void async(kit::Block block) override;
  size_t pending() const override;
  bool isInBlock() const override;
  bool drain(std::chrono::steady_clock::time_point deadline) override;
  void cease() override;
  void stop(std::chrono::steady_clock::time_point deadline) override;
  void letGo() override {}

 private:
  struct State;
  testing::VirtualLoop& loop_;
  const std::shared_ptr<State> state_;
};

}  // namespace morvik::simulation
