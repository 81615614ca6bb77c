// What the kit costs the app: one recorded event at several depths of the queue, also while another thread commits
// without a pause; the start, shared() and startSession.
//
// No benchmark loop here: the relevant figures are medians and the 99.9th percentile of single calls.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "bench/support/folder.h"
#include "bench/support/run_delay.h"
#include "host/make_instance.h"
#include "morvik/morvik.h"
#include "simulation/levered_machine.h"

extern char** environ;

namespace morvik::bench {
namespace {

/// Enough for twenty events beyond the 99.9th percentile.
constexpr int kEventsMeasured = 20'000;
constexpr int kStartsMeasured = 15;
constexpr int kSessionsMeasured = 300;
constexpr double kMaxMedianMicroseconds = 10;
constexpr double kMaxDepthRatio = 1.5;
/// A call waits for the rest of the running commit, and then for the one that includes its own record.
constexpr double kMaxWaitInCommits = 2;
/// Rows of one commit that the foreign thread meets: a record, a busy turn, a large one.
constexpr std::array kRowsOfACommit = {1, 100, 5'000};
constexpr int kWaitsMeasured = 5'000;

int64_t nowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

/// Reaches no service and, without a user number, builds no batch. Pumped by the calling thread.
StartOptions optionsOn(const std::string& folder) {
  StartOptions options;
  options.store_folder = folder;
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "tracking";
  options.service_url = "https://127.0.0.1:1/";
  options.log_level = 0;
  options.log_sink = [](std::string_view) {};
  options.ad_client = AdClient{};
  options.main_queue = MainQueueMode::kPumped;
  return options;
}

std::unique_ptr<MorvikCore> started(const std::string& folder) {
  StartResult result = MorvikCore::start(optionsOn(folder));
  if (!result) {
    std::fprintf(stderr, "%s\n", result.error.c_str());
    std::exit(2);
  }
  return std::move(result.core);
}

void record(MorvikCore& core, int number) {
  core.addActivity("shop", "purchase", "item-" + std::to_string(number));
}

struct Times {
  explicit Times(std::vector<double> microseconds) : sorted(std::move(microseconds)) {
    std::sort(sorted.begin(), sorted.end());
  }
  double at(double share) const { return sorted[static_cast<size_t>(share * static_cast<double>(sorted.size() - 1))]; }
  double median() const { return at(0.5); }
  std::vector<double> sorted;
};

void print(const char* what, const Times& times) {
  std::printf("%-58s median %10.2f us   99.9%% %10.2f us\n", what, times.median(), times.at(0.999));
  std::fflush(stdout);
}

Times measured(int count, const std::function<void(int)>& call) {
  std::vector<double> microseconds;
  microseconds.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const int64_t begin = nowNanoseconds();
    call(i);
    microseconds.push_back(static_cast<double>(nowNanoseconds() - begin) / 1e3);
  }
  return Times(std::move(microseconds));
}

double recordingAtDepth(int depth) {
  const Folder folder;
  const auto core = started(folder.path());
  for (int i = 0; i < depth; ++i)
    record(*core, i);
  core->dispatch();
  const Times times = measured(kEventsMeasured, [&](int i) { record(*core, i); });
  print(("record one event, " + std::to_string(depth) + " stored before").c_str(), times);
  return times.median();
}

std::string rowsText(int rows) {
  return std::to_string(rows) + (rows == 1 ? " row" : " rows");
}

/// As measured(), without the time in which the calling thread was not scheduled.
Times measuredRunning(int count, const std::function<void(int)>& call) {
  RunDelay delay;
  std::vector<double> microseconds;
  microseconds.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const int64_t delay_before = delay.nanoseconds();
    const int64_t begin = nowNanoseconds();
    call(i);
    const int64_t took = nowNanoseconds() - begin;
    microseconds.push_back(static_cast<double>(std::max<int64_t>(0, took - (delay.nanoseconds() - delay_before))) /
                           1e3);
  }
  return Times(std::move(microseconds));
}

/// This many rows, none of which is in the store.
kit::Value newRows(int rows, int number) {
  kit::MutableArray list;
  for (int row = 0; row < rows; ++row)
    list.append(kit::Dictionary{{"number", number}, {"text", "item-" + std::to_string(row)}});
  return kit::Value(std::move(list));
}

void printCommits(const std::string& what, const Times& times) {
  std::printf("%-58s median %10.2f us   99.9%% %10.2f us   longest %10.2f us\n", what.c_str(), times.median(),
              times.at(0.999), times.at(1));
}

/// The longest wait and the 99.9th percentile of a foreign thread, in units of commits by a thread that commits without
/// a pause. Commits are measured by wall time, since a committer that is not scheduled delays others.
double recordingDuringCommits(int rows) {
  const Folder folder;
  auto machine = std::make_unique<simulation::LeveredMachine>();
  auto& levers = *machine;
  auto made = host::makeInstance(optionsOn(folder.path()), std::move(machine));
  auto* const instance = std::get_if<std::unique_ptr<runtime::Instance>>(&made);
  if (instance == nullptr)
    std::exit(2);
  std::atomic<bool> over{false};
  std::vector<double> commit_microseconds;
  std::thread committer([&] {
    for (int i = 0; !over; ++i) {
      levers.edit("bench", newRows(rows, i));
      const int64_t begin = nowNanoseconds();
      (*instance)->properties().synchronize();
      commit_microseconds.push_back(static_cast<double>(nowNanoseconds() - begin) / 1e3);
    }
  });
  const Times waits = measuredRunning(
      kWaitsMeasured, [&](int i) { (*instance)->addActivity("shop", "purchase", "item-" + std::to_string(i)); });
  over = true;
  committer.join();
  const Times commits(std::move(commit_microseconds));
  printCommits("commits of " + rowsText(rows) + " without a pause", commits);
  printCommits("record one event meanwhile", waits);
  std::printf("%-58s median %10.2f      99.9%% %10.2f      longest %10.2f\n", "  wait / one commit",
              waits.median() / commits.median(), waits.at(0.999) / commits.at(0.999), waits.at(1) / commits.at(1));
  std::fflush(stdout);
  return std::max(waits.at(0.999) / commits.at(0.999), waits.at(1) / commits.at(1));
}

/// Milliseconds from process creation until its first event is recorded.
double startOnce(const char* program, const std::string& folder) {
  std::string moment = std::to_string(nowNanoseconds());
  std::string text = "--first-event";
  std::string place = folder;
  std::string name = program;
  std::array<char*, 5> arguments{name.data(), text.data(), place.data(), moment.data(), nullptr};
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0)
    std::exit(2);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  pid_t child = 0;
  if (::posix_spawn(&child, program, &actions, nullptr, arguments.data(), environ) != 0)
    std::exit(2);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  std::string answer;
  std::array<char, 64> part{};
  for (ssize_t size = 0; (size = ::read(ends[0], part.data(), part.size())) > 0;)
    answer.append(part.data(), static_cast<size_t>(size));
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
  return std::strtod(answer.c_str(), nullptr);
}

int firstEvent(const char* folder, const char* moment) {
  const auto core = started(folder);
  record(*core, 0);
  std::printf("%.3f\n", static_cast<double>(nowNanoseconds() - std::strtoll(moment, nullptr, 10)) / 1e3);
  std::fflush(stdout);
  return 0;
}

void startWith(const char* program, int stored) {
  const Folder folder;
  {
    const auto core = started(folder.path());
    for (int i = 0; i < stored; ++i)
      record(*core, i);
  }
  std::vector<double> microseconds;
  for (int i = 0; i < kStartsMeasured; ++i)
    microseconds.push_back(startOnce(program, folder.path()));
  print(("process start to first event, " + std::to_string(stored) + " stored").c_str(),
        Times(std::move(microseconds)));
}

void sharedAndSessions() {
  const Folder folder;
  const auto core = started(folder.path());
  const auto object = MorvikCoreLib::shared();
  if (object == nullptr)
    std::exit(2);
  print("shared(), a thousand calls", measured(1000, [](int) {
          for (int i = 0; i < 1000; ++i) {
            if (MorvikCoreLib::shared() == nullptr)
              std::exit(2);
          }
        }));
  object->startSession();
  print("startSession of an open session", measured(kSessionsMeasured, [&](int) { object->startSession(); }));
  std::vector<double> microseconds;
  for (int i = 0; i < kSessionsMeasured; ++i) {
    object->endSession();
    const int64_t begin = nowNanoseconds();
    object->startSession();
    microseconds.push_back(static_cast<double>(nowNanoseconds() - begin) / 1e3);
  }
  print("startSession after endSession", Times(std::move(microseconds)));
}

int verdict(const char* what, double value, double limit) {
  const bool kept = value <= limit;
  std::printf("%-58s %6.2f  (at most %.2f)  %s\n", what, value, limit, kept ? "kept" : "ABOVE");
  return kept ? 0 : 1;
}

int run(const char* program) {
  recordingAtDepth(10);  // warm-up; the figures that count follow
  const double shallow = recordingAtDepth(10);
  recordingAtDepth(1'000);
  recordingAtDepth(10'000);
  const double deep = recordingAtDepth(100'000);
  double longest_wait = 0;
  for (const int rows : kRowsOfACommit)
    longest_wait = std::max(longest_wait, recordingDuringCommits(rows));
  startWith(program, 0);
  startWith(program, 10'000);
  sharedAndSessions();
  std::printf("\n");
  return verdict("median of one recorded event, in microseconds", std::max(shallow, deep), kMaxMedianMicroseconds) |
         verdict("one event at a depth of 100,000 / at a depth of 10", deep / shallow, kMaxDepthRatio) |
         verdict("wait for commits / one commit (99.9% and longest)", longest_wait, kMaxWaitInCommits);
}

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--first-event") == 0)
    return morvik::bench::firstEvent(argv[2], argv[3]);
  return morvik::bench::run(argv[0]);
}
