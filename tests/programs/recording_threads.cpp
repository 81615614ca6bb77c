// Eight threads of an app record as fast as they can until the process is killed. The number of calls that have
// returned, per thread, is in a mapped file, so that it outlives the process.
//
//   recording_threads STORE_FOLDER COUNTS_FILE own|pumped
//
// Thread T records the activities "thread-T" 0, 1, 2, ...; the file holds eight 64-bit numbers.
#include <fcntl.h>
#include <morvik/morvik.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t kThreads = 8;
using Counts = std::array<std::atomic<uint64_t>, kThreads>;
static_assert(std::atomic<uint64_t>::is_always_lock_free);

Counts* mapped(const char* path) {
  const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate(file, sizeof(Counts)) != 0)
    return nullptr;
  void* memory = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<Counts*>(memory);
}

void record(morvik::MorvikCore& core, size_t thread, std::atomic<uint64_t>& returned) {
  const std::string group = "thread-" + std::to_string(thread);
  for (uint64_t number = 0;; ++number) {
    if (core.addActivity(group, std::to_string(number)) != morvik::Recorded::kKept)
      return;
    returned = number + 1;
  }
}

void pump(morvik::MorvikCore& core) {
  for (;;) {
    pollfd waiting{core.pollDescriptor(), POLLIN, 0};
    poll(&waiting, 1, core.pollTimeoutMilliseconds());
    core.dispatch();
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 4)
    return 2;
  Counts* counts = mapped(arguments[2]);
  if (counts == nullptr)
    return 2;
  morvik::StartOptions options;
  options.store_folder = arguments[1];
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "tracking";
  options.service_url = "https://127.0.0.1:9/";
  const bool is_pumped = std::string(arguments[3]) == "pumped";
  options.main_queue = is_pumped ? morvik::MainQueueMode::kPumped : morvik::MainQueueMode::kOwnThread;
  const morvik::StartResult started = morvik::MorvikCore::start(options);
  if (!started) {
    std::fprintf(stderr, "%s\n", started.error.c_str());
    return 1;
  }
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&, thread] { record(*started.core, thread, (*counts)[thread]); });
  if (is_pumped)
    pump(*started.core);
  for (std::thread& thread : threads)
    thread.join();
  return 3;
}
