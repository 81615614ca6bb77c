#include "simulation/test_device.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "services/MorvikGVUserDefaults.h"

namespace morvik::simulation {
namespace {

constexpr int kTraceLevel = 6;

double secondsOf(std::chrono::duration<double> time) {
  return time.count();
}

}  // namespace

StartOptions TestDeviceOptions::defaultApp() {
  StartOptions app = simulatedApp();
  app.log_level = kTraceLevel;
  return app;
}

TestDevice::TestDevice(TestDeviceOptions options)
    : options_(std::move(options)),
      machine_(options_.machine),
      cipher_(machine_.makeCipher()),
      compressor_(machine_.makeCompressor(stop_)),
      random_of_service_(options_.machine.seed),
      service_({*cipher_, *compressor_, random_of_service_}, options_.keys, [this] { return machine_.loop.now(); }) {
  machine_.transport.setDefaultReply(service_.reply());
  if (options_.is_started)
    start();
}

TestDevice::~TestDevice() {
  kill();
}

void TestDevice::start() {
  StartOptions app = options_.app;
  app.app_key = options_.keys.app_key;
  app.hash_key = options_.keys.hash_key;
  app.tracking_key = options_.keys.tracking_key;
  app.log_sink = [this](std::string_view line) { log_.line(line); };
  process_ = machine_.start(app);
  if (options_.at_start)
    options_.at_start(*process_);
  settle();
}

runtime::Instance& TestDevice::instance() {
  if (!process_)
    throw std::logic_error("test device: no process runs; restart() starts one");
  return *process_;
}

void TestDevice::perform(std::function<void()> block) {
  instance().perform(std::move(block));
  settle();
}

void TestDevice::open() {
  instance().applicationDidBecomeActive();
  settle();
}

void TestDevice::leave() {
  instance().applicationDidEnterBackground();
  advance(kTimeAfterLeaving);
}

void TestDevice::advance(std::chrono::duration<double> time) {
  machine_.loop.advance(secondsOf(time));
}

void TestDevice::settle() {
  machine_.loop.runUntilIdle();
}

void TestDevice::setClockBy(std::chrono::duration<double> time) {
  machine_.loop.moveWallClock(secondsOf(time));
}

void TestDevice::goOffline() {
  is_offline_ = true;
  machine_.transport.goOffline();
  machine_.setOffline(true);
}

void TestDevice::goOnline() {
  is_offline_ = false;
  machine_.transport.goOnline();
  machine_.setOffline(false);
}

size_t TestDevice::delivered(std::string_view group, std::string_view name) const {
  const auto events = service_.events();
  return static_cast<size_t>(std::count_if(events.begin(), events.end(), [&](const kit::Value& event) {
    return event["group"].string() == group && event["activity"].string() == name;
  }));
}

size_t TestDevice::waiting(std::string_view group, std::string_view name) const {
  const kit::Value in_store = process_ ? process_->properties().fendoActivityInfos()
                                       : machine_.store.get(services::property::fendoActivityInfos);
  const kit::Array stored = in_store.array();
  return static_cast<size_t>(std::count_if(stored.begin(), stored.end(), [&](const kit::Value& activity) {
    return activity["activityGroupName"].string() == group && activity["activityName"].string() == name;
  }));
}

void TestDevice::kill() {
  if (process_)
    machine_.kill(std::move(process_));
  process_ = nullptr;
}

void TestDevice::crash(const std::string& reason) {
  instance().reportUncaughtException({.reason = reason, .call_stack_symbols = {}, .moment = std::nullopt});
  kill();
}

void TestDevice::restart() {
  kill();
  start();
}

}  // namespace morvik::simulation
