#include "host/linux/crash/frame_walk.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/posix/standard_streams.h"

namespace morvik::host {
namespace {

using Words = std::array<uint64_t, 2>;  // the caller's frame pointer, the return address

bool mayFollow(uint64_t frame, uint64_t next) {
  return next % sizeof(uint64_t) == 0 && next > frame && next - frame <= kMaxFrameBytes;
}

/// Whether its caller has a frame too: two words may look like one frame by chance, hardly like two.
bool looksLikeFrame(uint64_t address, const CodeRanges& code, const SafeReader& reader) {
  Words frame{};
  Words caller{};
  return reader.read(address, frame) && code.hold(frame[1]) && mayFollow(address, frame[0]) &&
         reader.read(frame[0], caller) && code.hold(caller[1]);
}

uint64_t firstFrame(const StackTop& top, const CodeRanges& code, const SafeReader& reader) {
  if (top.frame_pointer % sizeof(uint64_t) == 0 && looksLikeFrame(top.frame_pointer, code, reader))
    return top.frame_pointer;
  const uint64_t begin = top.stack_pointer & ~uint64_t{sizeof(uint64_t) - 1};
  for (size_t i = 0; i < kMaxScannedWords; ++i) {
    const uint64_t address = begin + i * sizeof(uint64_t);
    if (looksLikeFrame(address, code, reader))
      return address;
  }
  return top.frame_pointer;
}

/// The caller of a function that has only just been called.
uint64_t callerOf(const StackTop& top, const SafeReader& reader) {
  Words words{};
  if (top.link != 0)
    return top.link;
  return reader.read(top.stack_pointer, words) ? words[0] : 0;
}

}  // namespace

bool CodeRanges::hold(uint64_t address) const {
  for (size_t i = 0; i < count; ++i) {
    if (address >= ranges[i].begin && address < ranges[i].end)
      return true;
  }
  return false;
}

bool SafeReader::open() {
  fillClosedStandardStreams();
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
    return false;
  from_ = ends[0];
  to_ = ends[1];
  return true;
}

void SafeReader::close() {
  if (from_ >= 0)
    ::close(from_);
  if (to_ >= 0)
    ::close(to_);
  from_ = to_ = -1;
}

bool SafeReader::read(uint64_t address, Words& words) const {
  constexpr auto kBytes = static_cast<ssize_t>(sizeof words);
  // Bypasses the C library, where memory checkers would stop at an unmapped address.
  return ::syscall(SYS_write, to_, address, sizeof words) == kBytes &&
         ::read(from_, words.data(), sizeof words) == kBytes;
}

size_t walkFrames(const StackTop& top, const CodeRanges& code, const SafeReader& reader, uint64_t* frames,
                  size_t capacity) {
  size_t count = 0;
  if (capacity == 0)
    return 0;
  frames[count++] = top.instruction;
  if (count < capacity && !code.hold(top.instruction)) {
    // No function was entered, so the frame pointer is still the caller's.
    const uint64_t caller = callerOf(top, reader);
    if (code.hold(caller))
      frames[count++] = caller;
  }
  uint64_t frame = firstFrame(top, code, reader);
  Words words{};
  while (count < capacity && reader.read(frame, words) && code.hold(words[1])) {
    frames[count++] = words[1];
    if (!mayFollow(frame, words[0]))
      break;
    frame = words[0];
  }
  return count;
}

}  // namespace morvik::host
