// The real machine, with levers.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "host/system_machine.h"
#include "simulation/levers.h"

namespace morvik::simulation {

/// For one instance. The levers may be used from any thread, from the instance's creation until its destruction.
class LeveredMachine : public host::SystemMachine, public Levers {
 public:
  /// Does not touch the system's own clock.
  void moveClock(double seconds) override;
  void setOffline(bool offline) override { is_offline_ = offline; }
  void after(double delay_seconds, kit::Block block) override;
  void edit(std::string_view key, kit::Value value) override;

  std::unique_ptr<runtime::MachineClock> makeClock() override;
  std::unique_ptr<runtime::MachineFacts> makeFacts() override;
  std::unique_ptr<runtime::MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) override;
  void takeEditor(const runtime::StoreEditor& editor) override { editor_ = editor; }

 private:
  std::atomic<int64_t> clock_offset_microseconds_{0};
  std::atomic<bool> is_offline_{false};
  runtime::MachineLoop* loop_ = nullptr;  ///< the instance's
  runtime::StoreEditor editor_;
};

}  // namespace morvik::simulation
