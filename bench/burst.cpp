// How long a recording call waits for the disk: in a burst of events, on the disk as it is and on one with slow syncs,
// and while another program holds the file.
//
// This program replaces the system's sync functions, so that a slow disk is available anywhere.

#include <signal.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/folder.h"
#include "bench/support/run_delay.h"
#include "morvik/morvik.h"

namespace {

std::atomic<int> sync_milliseconds{0};
std::atomic<int> slow_syncs{0};

int syncSlowly(long call, int file) {
  if (const int milliseconds = sync_milliseconds; milliseconds != 0) {
    ++slow_syncs;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }
  return static_cast<int>(::syscall(call, file));
}

}  // namespace

extern "C" int fsync(int file) {
  return syncSlowly(SYS_fsync, file);
}

extern "C" int fdatasync(int file) {
  return syncSlowly(SYS_fdatasync, file);
}

namespace morvik::bench {
namespace {

constexpr int kBurst = 600'000;
constexpr int kCallsWithAnotherProgram = 200;
constexpr int kSlowSyncMilliseconds = 300;
constexpr double kMaxWaitMilliseconds = 50;

int64_t nowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

/// Of the calling thread.
int64_t processorNanoseconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// In the default mode, with its own thread. Reaches no service and, without a user number, builds no batch.
std::unique_ptr<MorvikCore> started(const std::string& folder) {
  StartOptions options;
  options.store_folder = folder;
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "tracking";
  options.service_url = "https://127.0.0.1:1/";
  options.log_level = 0;
  options.log_sink = [](std::string_view) {};
  options.ad_client = AdClient{};
  StartResult result = MorvikCore::start(options);
  if (!result) {
    std::fprintf(stderr, "%s\n", result.error.c_str());
    std::exit(2);
  }
  return std::move(result.core);
}

struct Waits {
  double longest = 0;
  double of_it_computing = 0;
  int in_memory = 0;  ///< calls that returned so
};

/// Records this many events without a pause and prints the time per call, without the time in which its thread was
/// ready but not scheduled; for the longest call also its processor time. In milliseconds.
Waits burst(MorvikCore& core, const char* what, int count) {
  RunDelay delay;
  Waits waits;
  std::vector<double> milliseconds;
  milliseconds.reserve(static_cast<size_t>(count));
  const int64_t start = nowNanoseconds();
  for (int i = 0; i < count; ++i) {
    const int64_t delay_before = delay.nanoseconds();
    const int64_t computed_before = processorNanoseconds();
    const int64_t begin = nowNanoseconds();
    const Recorded recorded = core.addActivity("shop", "purchase", "item-" + std::to_string(i));
    const int64_t took = nowNanoseconds() - begin - (delay.nanoseconds() - delay_before);
    milliseconds.push_back(static_cast<double>(std::max<int64_t>(0, took)) / 1e6);
    if (milliseconds.back() > waits.longest) {
      waits.longest = milliseconds.back();
      waits.of_it_computing = static_cast<double>(processorNanoseconds() - computed_before) / 1e6;
    }
    waits.in_memory += recorded == Recorded::kKeptInMemory ? 1 : 0;
  }
  const double seconds = static_cast<double>(nowNanoseconds() - start) / 1e9;
  std::sort(milliseconds.begin(), milliseconds.end());
  std::printf(
      "%-44s %7d calls in %5.1f s   99.9%% %8.3f ms   longest %8.3f ms (%.3f of it computing)   kept in memory %d\n",
      what, count, seconds, milliseconds[static_cast<size_t>(0.999 * (count - 1))], waits.longest,
      waits.of_it_computing, waits.in_memory);
  std::fflush(stdout);
  return waits;
}

double megabytes(const std::string& path) {
  std::error_code none;
  const auto bytes = std::filesystem::file_size(path, none);
  return none ? 0 : static_cast<double>(bytes) / 1e6;
}

double burstOnSyncsOf(int milliseconds) {
  const Folder folder;
  const auto core = started(folder.path());
  sync_milliseconds = milliseconds;
  slow_syncs = 0;
  const std::string what = milliseconds == 0 ? "syncs as they are" : std::to_string(milliseconds) + " ms a sync";
  const Waits waits = burst(*core, what.c_str(), kBurst);
  std::printf("%-44s log %.0f MB, %d slow syncs meanwhile\n", "", megabytes(folder.path() + "/morvik.store-wal"),
              slow_syncs.load());
  sync_milliseconds = 0;
  return waits.longest;
}

/// Another program that has the file open and reads it, until it is killed.
class Holder {
 public:
  explicit Holder(const std::string& path) {
    int ends[2];
    if (::pipe(ends) != 0)
      std::exit(2);
    child_ = ::fork();
    if (child_ == 0)
      hold(path, ends[1]);
    char byte = 0;
    if (::read(ends[0], &byte, 1) != 1)
      std::exit(2);
    ::close(ends[0]);
    ::close(ends[1]);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  ~Holder() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }

 private:
  [[noreturn]] static void hold(const std::string& path, int ready) {
    sqlite3* handle = nullptr;
    const bool holds =
        sqlite3_open(path.c_str(), &handle) == SQLITE_OK &&
        sqlite3_exec(handle, "BEGIN IMMEDIATE;SELECT count(*) FROM properties", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!holds || ::write(ready, "h", 1) != 1)
      ::_exit(2);
    while (true)
      ::pause();
  }

  pid_t child_ = 0;
};

double burstWithAnotherProgram() {
  const Folder folder;
  started(folder.path()).reset();
  const Holder holder(folder.path() + "/morvik.store");
  const auto core = started(folder.path());
  const Waits waits = burst(*core, "another program holds the file", kCallsWithAnotherProgram);
  if (waits.in_memory == 0)
    std::exit(2);
  return waits.longest;
}

int run() {
  const double with_holder = burstWithAnotherProgram();  // first: it forks
  const double usual = burstOnSyncsOf(0);
  const double slow = burstOnSyncsOf(kSlowSyncMilliseconds);
  const double longest = std::max({with_holder, usual, slow});
  const bool kept = longest <= kMaxWaitMilliseconds;
  std::printf("\n%-44s %8.3f ms  (at most %.0f)  %s\n", "longest call", longest, kMaxWaitMilliseconds,
              kept ? "kept" : "ABOVE");
  return kept ? 0 : 1;
}

}  // namespace
}  // namespace morvik::bench

int main() {
  return morvik::bench::run();
}
