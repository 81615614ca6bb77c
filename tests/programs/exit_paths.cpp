// An app that ends in a given way while the kit is at work; tests/e2e/test_exit.py looks at what it left.
//
//   exit_paths STORE KEYS_FILE SERVICE_URL CA_FILE HOLDER WAY PLACE DELAY_MICROSECONDS NAME [WORD...]
//
// HOLDER: what holds the kit: local, global, static (in a function).
// WAY: return (from main), exit, quick_exit, abort, _exit. PLACE: where it is called: main, thread (one of the app's),
// callback (main queue), background (background queue).
//
// WORD: openssl-first, the app itself uses OpenSSL; wait-meanwhile, stop-meanwhile: during the end another thread waits
// for deliveries, or stops the kit. Only for a kit that is never destroyed.
//
// Prints a line for each event that a call reported as kept. The exit status is 7 if the way has one.
#include <morvik/morvik.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

#include "host/make_instance.h"
#include "simulation/levered_machine.h"

namespace {

constexpr int kStatus = 7;
/// Recorded before the end, and by each thread that keeps recording.
constexpr int kEvents = 5;
constexpr int kMaxEventsOfThread = 100;

std::unique_ptr<morvik::MorvikCore> global_core;

struct Plan {
  std::string holder;
  std::string way;
  std::string place;
  std::chrono::microseconds delay{0};
  std::string name;
  std::set<std::string> words;  ///< the optional ones

  /// Threads of the app may use the kit until the process is gone: nothing destroys it before.
  bool isNeverDestroyed() const {
    return way == "quick_exit" || way == "abort" || way == "_exit" || (holder == "local" && way == "exit");
  }
};

[[noreturn]] void end(const std::string& way) {
  if (way == "quick_exit")
    std::quick_exit(kStatus);
  if (way == "abort")
    std::abort();
  if (way == "_exit")
    ::_exit(kStatus);
  std::exit(kStatus);
}

std::atomic<bool> ends_in_background{false};

/// False once an event is refused.
bool record(morvik::MorvikCore& core, const std::string& name) {
  if (!isKept(core.addActivity("exit", name)))
    return false;
  const std::string line = name + "\n";
  return ::write(STDOUT_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

morvik::StartOptions optionsOf(char** arguments, const Plan& plan) {
  morvik::StartOptions options;
  options.store_folder = arguments[1];
  options.app_key = morvik::Key::inFile(arguments[2], "app-key");
  options.hash_key = morvik::Key::inFile(arguments[2], "hash-key");
  options.tracking_key = morvik::Key::inFile(arguments[2], "tracking-key");
  options.service_url = arguments[3];
  options.ca_file = arguments[4];
  if (plan.place == "background")
    options.modules["Fendo"].saveCommerceEventAndSend = [plan] {
      if (ends_in_background)
        end(plan.way);
    };
  return options;
}

std::unique_ptr<morvik::MorvikCore> start(const morvik::StartOptions& options) {
  morvik::StartResult started = morvik::MorvikCore::start(options);
  if (started)
    return std::move(started.core);
  std::cerr << started.error << std::endl;
  ::_exit(1);
}

/// Leaves a commerce event in the store, so that the end of a session calls the module on the background queue.
void leaveCommerceEvent(const morvik::StartOptions& options) {
  auto machine = std::make_unique<morvik::simulation::LeveredMachine>();
  auto& levers = *machine;
  const auto made = morvik::host::makeInstance(options, std::move(machine));
  if (std::holds_alternative<std::unique_ptr<morvik::runtime::Instance>>(made))
    levers.edit("commerceExpansionInfos", morvik::kit::Array{"event"});
}

void waitForDeliveries(morvik::MorvikCore& core) {
  while (core.waitUntilDelivered(std::chrono::hours(1)).reason != morvik::FlushReason::kStopped) {
  }
}

void goOnRecording(morvik::MorvikCore& core, const std::string& name) {
  for (int i = 0; i < kMaxEventsOfThread; ++i) {
    if (!record(core, name + "-" + std::to_string(i)))
      return;
  }
}

/// The module is also called at a session's start, but on the main queue: there the kit would be destroyed while this
/// thread uses it.
void enterBackgroundToEnd(morvik::MorvikCore& core) {
  ends_in_background = true;
  core.applicationDidEnterBackground();
}

/// Returns only if the way is to return from main.
void live(morvik::MorvikCore& core, const Plan& plan) {
  core.applicationDidBecomeActive();
  for (int i = 0; i < kEvents; ++i)
    record(core, plan.name + "-" + std::to_string(i));
  if (plan.isNeverDestroyed()) {
    for (const char* thread : {"a", "b"})
      std::thread([&core, name = plan.name + thread] { goOnRecording(core, name); }).detach();
  }
  if (plan.words.contains("wait-meanwhile"))
    std::thread([&core] { waitForDeliveries(core); }).detach();
  const auto moment = std::chrono::steady_clock::now() + plan.delay;
  while (std::chrono::steady_clock::now() < moment)
    std::this_thread::yield();
  if (plan.way == "return")
    return;
  const auto end_now = [&core, way = plan.way, stops = plan.words.contains("stop-meanwhile")] {
    if (stops)
      std::thread([&core] { core.stop(std::chrono::milliseconds(5)); }).detach();
    end(way);
  };
  if (plan.place == "main")
    end_now();
  if (plan.place == "thread")
    std::thread(end_now).detach();
  else if (plan.place == "callback")
    core.perform(end_now);
  else
    enterBackgroundToEnd(core);
  if (plan.words.contains("wait-meanwhile"))
    waitForDeliveries(core);
  for (;;)
    ::pause();
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 10) {
    std::cerr << "exit_paths: too few arguments; see the head of its source\n";
    return 2;
  }
  const Plan plan{arguments[5], arguments[6],
                  arguments[7], std::chrono::microseconds(std::stoll(arguments[8])),
                  arguments[9], std::set<std::string>(arguments + 10, arguments + count)};
  if (plan.words.contains("openssl-first"))
    OPENSSL_init_crypto(0, nullptr);
  const morvik::StartOptions options = optionsOf(arguments, plan);
  if (plan.place == "background")
    leaveCommerceEvent(options);
  if (plan.holder == "global") {
    global_core = start(options);
    live(*global_core, plan);
  } else if (plan.holder == "static") {
    static const std::unique_ptr<morvik::MorvikCore> core = start(options);
    live(*core, plan);
  } else {
    const std::unique_ptr<morvik::MorvikCore> core = start(options);
    live(*core, plan);
  }
  return kStatus;
}
