// The fixture for tests of a complete kit on the real machine.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string_view>
#include <utility>
#include <variant>

#include "host/make_instance.h"
#include "runtime/machine/machine.h"
#include "testing/recording_log.h"
#include "tests/support/scratch_folder.h"

namespace morvik::test {

/// How long a test waits for something before it fails.
inline constexpr std::chrono::seconds kGiveUp{20};

/// Instances on a scratch folder; their log lines are collected, and their service never answers.
class OnScratchFolder : public ::testing::Test {
 protected:
  OnScratchFolder() {
    options.store_folder = folder / "store";
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_sink = [this](std::string_view line) { log.line(line); };
    // Nothing listens there, and nothing leaves this machine.
    options.service_url = "http://127.0.0.1:1/";
  }

  std::unique_ptr<runtime::Instance> make() { return taken(host::makeInstance(options)); }
  std::unique_ptr<runtime::Instance> makeOn(runtime::Machine& machine) {
    return taken(runtime::makeInstance(options, machine));
  }
  std::unique_ptr<runtime::Instance> makePumped() {
    options.main_queue = MainQueueMode::kPumped;
    return make();
  }
  /// Starts an instance as an app does.
  std::unique_ptr<MorvikCore> start() {
    StartResult started = MorvikCore::start(options);
    EXPECT_TRUE(started) << started.error;
    return std::move(started.core);
  }
  /// Waits until the store is released.
  bool canStartInTheEnd() {
    const auto give_up = std::chrono::steady_clock::now() + kGiveUp;
    while (std::chrono::steady_clock::now() < give_up) {
      if (MorvikCore::start(options))
        return true;
    }
    return false;
  }
  static std::chrono::steady_clock::duration timeOf(const std::function<void()>& act) {
    const auto begin = std::chrono::steady_clock::now();
    act();
    return std::chrono::steady_clock::now() - begin;
  }
  template <class Result>
  static Result got(std::future<Result> future) {
    EXPECT_EQ(future.wait_for(kGiveUp), std::future_status::ready);
    return future.get();
  }

  ScratchFolder folder;
  testing::RecordingLog log;
  StartOptions options;

 private:
  static std::unique_ptr<runtime::Instance> taken(std::variant<std::unique_ptr<runtime::Instance>, kit::Error> made) {
    if (const auto* error = std::get_if<kit::Error>(&made)) {
      ADD_FAILURE() << error->message;
      return nullptr;
    }
    return std::get<std::unique_ptr<runtime::Instance>>(std::move(made));
  }
};

}  // namespace morvik::test
