#include "host/linux/system_threads.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <utility>

#include "host/posix/thread.h"

namespace morvik::host {
namespace {

class SystemThread final : public runtime::MachineThread {
 public:
  void join() override { thread.join(); }
  void detach() override { thread.detach(); }
  std::thread thread;
};

}  // namespace

std::string SystemThreads::currentThreadDescription() const {
  constexpr size_t kNameBytes = 16;  // the system's own limit
  const pthread_t self = pthread_self();
  std::array<char, kNameBytes> name{};
  pthread_getname_np(self, name.data(), name.size());
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), "<Thread: 0x%jx>{number = %jd, name = %s}", static_cast<uintmax_t>(self),
                static_cast<intmax_t>(gettid()), name.data());
  return text.data();
}

std::variant<std::unique_ptr<runtime::MachineThread>, kit::Error> SystemThreads::start(const char* name,
                                                                                       std::function<void()> body) {
  auto handle = std::make_unique<SystemThread>();  // first: without memory for it, no thread may run
  auto started = startThread(name, std::move(body));
  if (auto* error = std::get_if<kit::Error>(&started))
    return std::move(*error);
  handle->thread = std::get<std::thread>(std::move(started));
  return handle;
}

}  // namespace morvik::host
