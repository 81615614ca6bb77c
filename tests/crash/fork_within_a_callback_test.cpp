// A child that is forked within a callback, and goes back into the kit's own thread of which nothing else is left.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <future>
#include <string>

#include "host/log/log_sinks.h"
#include "host/store/sqlite_store.h"
#include "morvik/morvik.h"

#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

constexpr std::chrono::seconds kGiveUp{20};

/// Whether the child ended by itself, by no signal. Ends it when it hangs.
bool endsByItself(pid_t child) {
  auto waiting = std::async(std::launch::async, [child] {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status);
  });
  if (waiting.wait_for(kGiveUp) != std::future_status::ready)
    ::kill(child, SIGKILL);
  return waiting.get();
}

TEST(ForkWithinACallback, ReturnsToNothing) {
  const test::ScratchFolder folder;
  HostOptions options;
  options.store_folder = folder / "store";
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "track";
  options.log_sink = [](std::string_view) {};
  options.service_url = "http://127.0.0.1:1/";
  const StartResult started = MorvikCore::start(options);
  ASSERT_TRUE(started) << started.error;
  MorvikCore& core = *started.core;
  std::promise<pid_t> forked;
  core.perform([&] {
    core.addActivity("fork", "before");
    const pid_t child = ::fork();
    if (child != 0)
      forked.set_value(child);
    else
      core.addActivity("fork", "in the child");
  });
  EXPECT_TRUE(endsByItself(forked.get_future().get()));
  EXPECT_EQ(core.addActivity("fork", "afterwards"), Recorded::kKept);
  core.stop();
  StderrLogSink unused;
  EXPECT_EQ(SqliteStore({.place = {.folder = options.store_folder}, .read_only = true}, unused)
                .get("fendoActivityInfos")
                .size(),
            2U);
}

}  // namespace
}  // namespace morvik::host
