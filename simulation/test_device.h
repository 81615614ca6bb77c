// A device for an app's tests: the kit as the app sees it, in virtual time, with a healthy service behind a network
// that the test controls. Everything has a default.
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

/// How long the platform lets an app run after it was left.
inline constexpr std::chrono::seconds kTimeAfterLeaving{30};

struct TestDeviceOptions {
  /// The options with which the app starts the kit. The device sets keys and log sink: log() keeps every line.
  StartOptions app = defaultApp();
  /// The keys of the kit and of the service.
  testing::ServiceKeys keys{"test-app", "test-hash", "test-tracking"};
  VirtualMachineOptions machine;
  /// What the app does each time its process starts, with the new kit; for example, set its delegate. Empty: nothing.
  std::function<void(MorvikCore& kit)> at_start;
  /// Whether the app's process runs from the start; if not, restart() starts it.
  bool is_started = true;

  /// A store folder (which is not created), a service under a reserved name, the log at its highest level.
  static StartOptions defaultApp();
};

/// Use from one thread. Things happen only within the functions below, and whatever they cause happens before they
/// return, unless it takes time. They throw std::logic_error if they need a process and none runs, and
/// std::runtime_error, with the kit's message, if the kit refuses the app's options.
class TestDevice {
 public:
  explicit TestDevice(TestDeviceOptions options = {});
  ~TestDevice();
  TestDevice(const TestDevice&) = delete;
  TestDevice& operator=(const TestDevice&) = delete;

  // The app.
  /// The kit as MorvikCore::start() returns it. Each process has its own, which kill() and restart() destroy. A test's
  /// calls come from outside the main queue, so they are posted, and run in the next settle(), open(), leave(),
  /// advance() or perform(); a kill() before that discards them.
  MorvikCore& kit() { return instance(); }
  /// The same kit, with what an app does not see: what is stored, what is pending.
  runtime::Instance& instance();
  bool isAlive() const { return process_ != nullptr; }
  /// Runs `block` on the main queue, like the app's own code there: calls to the kit are done and what they stored is
  /// committed when this returns. Exceptions are caught and logged.
  void perform(std::function<void()> block);

  // The device's user.
  /// The app comes to the foreground; what that causes happens, and no time passes.
  void open();
  /// The app leaves the foreground, and the running time that the platform then grants it passes.
  void leave();

  // Time.
  /// Lets this much time pass: everything that waits runs, each timer at its own time. Not negative.
  void advance(std::chrono::duration<double> time);
  /// Runs what waits; no time passes.
  void settle();
  /// Sets the device's clock forward, or back if negative. Timers are not affected, and no time passes.
  void setClockBy(std::chrono::duration<double> time);

  // The network and the service behind it.
  /// The device has no network until goOnline(): its status says so and every request fails. Restarts do not change
  /// that.
  void goOffline();
  void goOnline();
  /// Scripts in front of the service: network().on("v1/tracking").then(testing::Answer::body(503, "")) replaces one
  /// answer. Also lists the requests that left.
  testing::ScriptedTransport& network() { return machine_.transport; }
  testing::SimulatedService& service() { return service_; }
  /// Number of events of that group and name that the service counted; one that arrived twice counts once.
  size_t delivered(std::string_view group, std::string_view name) const;
  /// Number of them waiting in the store. On a machine with a disk only while a process runs.
  size_t waiting(std::string_view group, std::string_view name) const;

  // The process.
  /// The process dies at once: uncommitted writes are lost, and nothing of it runs any more. No effect without a
  /// process.
  void kill();
  /// The process dies of an uncaught exception. The kit keeps a report if the exception concerns the kit.
  void crash(const std::string& reason);
  /// Starts the next process, on what was committed. Kills first if a process runs.
  void restart();

  /// Everything that the kit logged, in all processes.
  testing::RecordingLog& log() { return log_; }
  /// The machine below: its clock, store, random source and facts.
  VirtualMachine& machine() { return machine_; }

 private:
  void start();

  const TestDeviceOptions options_;
  testing::RecordingLog log_;
  VirtualMachine machine_;
  // The service's; it never stops.
  const kit::StopRequest stop_;
  const std::unique_ptr<const kit::Cipher> cipher_;
  const std::unique_ptr<const kit::Compressor> compressor_;
  testing::SeededRandom random_of_service_;
  testing::SimulatedService service_;
  bool is_offline_ = false;
  std::unique_ptr<runtime::Instance> process_;
};

}  // namespace morvik::simulation
