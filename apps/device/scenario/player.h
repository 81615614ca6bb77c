// Plays a story: the real host on a machine whose time is virtual.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/device/output.h"
#include "apps/device/phone.h"
#include "apps/device/progress_bar.h"
#include "apps/device/scenario/expectations.h"
#include "apps/device/scenario/history.h"
#include "apps/device/scenario/scenario.h"
#include "apps/device/scenario/scripted_service.h"
#include "apps/device/scenario/session_watch.h"
#include "apps/device/scenario/timeline.h"
#include "kit/list_lock.h"
#include "simulation/virtual_machine.h"

namespace morvik_device::scenario {

class Player {
 public:
  /// The arguments outlive the player.
  Player(const Scenario& scenario, uint64_t seed, Timeline& timeline, ProgressBar& progress);
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  /// Plays the scenario up to the first expectation that is not met. True if all are met. Call once.
  bool play();

 private:
  int64_t nowMilliseconds() const;
  void advanceTo(int64_t milliseconds);
  void advanceThroughPhases(int64_t milliseconds);
  void setPhase(const NetworkPhase* phase);
  void perform(const Step& step);
  void perform(const StepVerb& verb);
  void act(const StepVerb& verb);
  void crash(const std::string& reason);
  void startProcess();
  void killProcess(const std::string& text);
  void stopProcess(std::optional<double> drain_seconds);
  void eraseProcess();
  bool assessAll(const std::vector<Expectation>& expectations);

  void took(const morvik::kit::Value& line);
  void tookLine(std::string_view text);
  void tookSession(SessionWatch::Event event);
  void tell(Happening::Kind kind, std::string text, morvik::kit::Dictionary fields = {}, bool is_trouble = false);
  morvik::kit::Value stored(const std::string& property);
  morvik::Ledger ledger();

  const Scenario& scenario_;
  Timeline& timeline_;
  ProgressBar& progress_;
  History history_;
  morvik::simulation::VirtualMachine machine_;
  const double first_second_;
  ScriptedService service_;
  SessionWatch sessions_;
  morvik::kit::ListLock list_lock_;
  Output output_;
  size_t next_phase_ = 0;
  const NetworkPhase* phase_ = nullptr;
  size_t met_ = 0;
  std::unique_ptr<Phone> phone_;
};

}  // namespace morvik_device::scenario
