#include "simulation/levered_machine.h"

#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "kit/MorvikADUtil.h"

namespace morvik::simulation {
namespace {

kit::Date moved(kit::Date date, int64_t microseconds) {
  int64_t sum = 0;
  if (!__builtin_add_overflow(date.microseconds, microseconds, &sum))
    return {sum};
  return {microseconds < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max()};
}

class MovableClock final : public runtime::MachineClock {
 public:
  MovableClock(std::unique_ptr<const runtime::MachineClock> clock, const std::atomic<int64_t>& offset_microseconds)
      : clock_(std::move(clock)), offset_microseconds_(offset_microseconds) {}
  kit::Date now() const override { return moved(clock_->now(), offset_microseconds_.load(std::memory_order_relaxed)); }
  std::chrono::steady_clock::time_point steadyNow() const override { return clock_->steadyNow(); }

 private:
  const std::unique_ptr<const runtime::MachineClock> clock_;
  const std::atomic<int64_t>& offset_microseconds_;
};

class FactsWithSwitch final : public runtime::MachineFacts {
 public:
  FactsWithSwitch(std::unique_ptr<const runtime::MachineFacts> facts, const std::atomic<bool>& is_offline)
      : facts_(std::move(facts)), is_offline_(is_offline) {}
  std::string networkStatus(bool has_loopback_endpoint) const override {
    return is_offline_ ? kit::kNetworkUnknown : facts_->networkStatus(has_loopback_endpoint);
  }
  std::optional<int64_t> freeDiskBytes(const std::string& path) const override { return facts_->freeDiskBytes(path); }
  uint32_t freeMemoryKibibytes() const override { return facts_->freeMemoryKibibytes(); }

 private:
  const std::unique_ptr<const runtime::MachineFacts> facts_;
  const std::atomic<bool>& is_offline_;
};

}  // namespace

void LeveredMachine::moveClock(double seconds) {
  int64_t before = clock_offset_microseconds_.load();
  while (!clock_offset_microseconds_.compare_exchange_weak(before,
                                                           kit::Date{before}.shiftedBySeconds(seconds).microseconds)) {
  }
}

void LeveredMachine::after(double delay_seconds, kit::Block block) {
  loop_->schedule(delay_seconds, std::move(block));
}

void LeveredMachine::edit(std::string_view key, kit::Value value) {
  if (editor_)
    editor_(key, std::move(value));
}

std::unique_ptr<runtime::MachineClock> LeveredMachine::makeClock() {
  return std::make_unique<MovableClock>(SystemMachine::makeClock(), clock_offset_microseconds_);
}

std::unique_ptr<runtime::MachineFacts> LeveredMachine::makeFacts() {
  return std::make_unique<FactsWithSwitch>(SystemMachine::makeFacts(), is_offline_);
}

std::unique_ptr<runtime::MachineLoop> LeveredMachine::makeMainLoop(MainQueueMode mode, const services::Logger& logger) {
  auto loop = SystemMachine::makeMainLoop(mode, logger);
  loop_ = loop.get();
  return loop;
}

}  // namespace morvik::simulation
