// A device for the tests of an app: the kit as the app holds it, in virtual time, with a service in good order behind a
// network that the test holds in its hand. Everything has a default.
//
//   simulation::TestDevice device;
//   device.open();                                        // a session begins, the install is attributed
//   device.kit().addActivity("shop", "purchase");
//   device.goOffline();
//   device.leave();
//   device.advance(std::chrono::days(3));                 // takes no time
//   device.kill();                                        // the system ends the process
//   device.goOnline();
//   device.restart();
//   device.open();
//   device.delivered("shop", "purchase");                 // 1: it arrived, once
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "kit/crypto.h"
#include "kit/stop_request.h"
#include "morvik/morvik.h"
#include "runtime/instance.h"
#include "simulation/virtual_machine.h"
#include "testing/fake_crypto.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/simulated_service.h"

namespace morvik::simulation {

/// Running time that the platform grants to an app that was left.
inline constexpr std::chrono::seconds kTimeAfterLeaving{30};

struct TestDeviceOptions {
  /// What the app starts the kit with. Keys and the log's sink are set by the device: every line is kept in log().
  StartOptions app = defaultApp();
  /// Those of the kit and of the service.
  testing::ServiceKeys keys{"test-app", "test-hash", "test-tracking"};
  VirtualMachineOptions machine;
  /// What the app does each time its process starts, with the kit just made: sets its delegate, say. Empty: nothing.
  std::function<void(MorvikCore& kit)> at_start;
  /// Whether the app's process runs from the beginning; if not, restart() starts it.
  bool is_started = true;

  /// A store folder (which is made nowhere), a service under a reserved name, the log at its most talkative.
  static StartOptions defaultApp();
};

/// Of one thread. Nothing happens but in the functions below, and what they set off happens before they return, as far
/// as it needs no time. They throw std::logic_error when they need a process and none runs, and
/// std::runtime_error when the kit refuses the app's options, with its own words.
class TestDevice {
 public:
  explicit TestDevice(TestDeviceOptions options = {});
  ~TestDevice();
  TestDevice(const TestDevice&) = delete;
  TestDevice& operator=(const TestDevice&) = delete;

  // The app.
  /// The kit as MorvikCore::start() gives it. Each process has its own: gone after kill() and restart(). A test's calls
  /// come from outside the main queue, so they are posted, and done with the next settle(), open(), leave(), advance()
  /// or perform(); a kill() comes before them.
  MorvikCore& kit() { return instance(); }
  /// The same, with what an app does not see: what is stored, what is pending.
  runtime::Instance& instance();
  bool isAlive() const { return process_ != nullptr; }
  /// Runs `block` on the main queue, as the app's own code runs there: what it calls of the kit is done, and what that
  /// stored is committed. What it throws ends there, with a line in the log.
  void perform(std::function<void()> block);

  // The device's user.
  /// The app comes to the foreground; what that sets off happens, and no time passes.
  void open();
  /// The app leaves the foreground, and the time that the platform grants it then passes.
  void leave();

  // Time.
  /// So much time passes: everything that waits runs, each timer at its own time. Not negative.
  void advance(std::chrono::duration<double> time);
  /// What waits runs; no time passes.
  void settle();
  /// Somebody sets the device's clock, forward, or back when negative. Timers do not follow it, and no time passes.
  void setClockBy(std::chrono::duration<double> time);

  // The network and the service behind it.
  /// The device has no network: its status says so and every request fails, until goOnline(); restarts change nothing.
  void goOffline();
  void goOnline();
  /// Scripts in front of the service: network().on("v1/tracking").then(testing::Answer::body(503, "")) spoils one
  /// answer. Also tells what left.
  testing::ScriptedTransport& network() { return machine_.transport; }
  testing::SimulatedService& service() { return service_; }
  /// How many events of that group and name the service counted; one that arrived twice counts once.
  size_t delivered(std::string_view group, std::string_view name) const;
  /// How many of them wait in the store. On a machine with a disk only while a process runs.
  size_t waiting(std::string_view group, std::string_view name) const;

  // The process.
  /// It dies at once: what was not committed is lost, and nothing of it runs any more. Without one, nothing happens.
  void kill();
  /// It dies of an exception that nobody caught. The kit keeps a report of it if it concerns the kit.
  void crash(const std::string& reason);
  /// The next process starts, on what was committed. Kills first, if need be.
  void restart();

  /// All that the kit logged, of all processes.
  testing::RecordingLog& log() { return log_; }
  /// The machine below: its clock, store, random source and facts.
  VirtualMachine& machine() { return machine_; }

 private:
  void start();

  const TestDeviceOptions options_;
  testing::RecordingLog log_;
  VirtualMachine machine_;
  // Of the service, which never stops.
  const kit::StopRequest stop_;
  const std::unique_ptr<const kit::Cipher> cipher_;
  const std::unique_ptr<const kit::Compressor> compressor_;
  testing::SeededRandom random_of_service_;
  testing::SimulatedService service_;
  bool is_offline_ = false;
  std::unique_ptr<runtime::Instance> process_;
};

}  // namespace morvik::simulation
