// Walks a stack by its frame pointers. For signal handlers: nothing here allocates, locks, or calls anything that is
// not async-signal-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

/// Words of a stack searched for its first frame if the frame pointer itself holds something else (in library functions
/// compiled without frame pointers).
inline constexpr size_t kMaxScannedWords = 1024;
/// Largest distance between two frames.
inline constexpr uint64_t kMaxFrameBytes = uint64_t{8} << 20;

/// The ranges of code, in a form that a signal handler may read.
struct CodeRanges {
  struct Range {
    uint64_t begin = 0;
    uint64_t end = 0;
  };
  std::array<Range, kMaxLoadedModules> ranges{};
  size_t count = 0;

  bool hold(uint64_t address) const;
};

/// Registers at the time of a signal.
struct StackTop {
  uint64_t instruction = 0;
  uint64_t stack_pointer = 0;
  uint64_t frame_pointer = 0;
  uint64_t link = 0;  ///< return address of the latest call; 0 if the processor keeps it on the stack
};

/// Reads memory that may not be mapped, through a pipe: the kernel refuses unmapped addresses.
class SafeReader {
 public:
  /// Not async-signal-safe; false if no pipe is available.
  bool open();
  void close();
  /// Reads two words at `address`; false if they cannot be read.
  bool read(uint64_t address, std::array<uint64_t, 2>& words) const;

 private:
  int from_ = -1;
  int to_ = -1;
};

/// Finds the interrupted instruction and the return addresses above it, innermost first, at most `capacity`; returns
/// how many. After a call to an address without code, the caller comes second.
size_t walkFrames(const StackTop& top, const CodeRanges& code, const SafeReader& reader, uint64_t* frames,
                  size_t capacity);

}  // namespace morvik::host
