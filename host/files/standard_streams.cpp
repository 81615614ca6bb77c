#include "host/files/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <mutex>

namespace morvik::host {
namespace {

constexpr int kStandardStreams = STDERR_FILENO + 1;

/// Of all threads: none lets go of what another one still needs.
struct TakenStreams {
  std::mutex mutex;
  size_t holders = 0;
  std::array<bool, kStandardStreams> are_ours{};
};
constinit TakenStreams taken_streams;

bool isAnyClosed() {
  for (int stream = 0; stream < kStandardStreams; ++stream) {
    if (::fcntl(stream, F_GETFD) < 0)
      return true;
  }
  return false;
}

/// Names a file without opening it, so that reading and writing answer as for a closed descriptor. The lowest ones that
/// are free come first.
void takeThoseThatAreClosed() {
  while (isAnyClosed()) {
    const int opened = ::open("/", O_PATH | O_CLOEXEC);
    if (opened < 0)
      return;  // there are none left for anybody
    if (opened >= kStandardStreams) {
      ::close(opened);
      return;
    }
    taken_streams.are_ours[static_cast<size_t>(opened)] = true;
  }
}

/// What the app has put in the place of ours is no mere name.
void letGo() {
  for (int stream = 0; stream < kStandardStreams; ++stream) {
    bool& is_ours = taken_streams.are_ours[static_cast<size_t>(stream)];
    const int flags = is_ours ? ::fcntl(stream, F_GETFL) : -1;
    if (flags >= 0 && (flags & O_PATH) != 0)
      ::close(stream);
    is_ours = false;
  }
}

}  // namespace

StandardStreamsTaken::StandardStreamsTaken() {
  const std::scoped_lock hold(taken_streams.mutex);
  ++taken_streams.holders;
  takeThoseThatAreClosed();
}

StandardStreamsTaken::~StandardStreamsTaken() {
  const std::scoped_lock hold(taken_streams.mutex);
  if (--taken_streams.holders == 0)
    letGo();
}

}  // namespace morvik::host
