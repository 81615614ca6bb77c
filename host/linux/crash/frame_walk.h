// The return addresses of a stack, read by its frame pointers. For signal handlers: nothing here allocates, locks, or
// calls anything that is not async-signal-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

/// Words of a stack that are looked at for its first frame, where the frame pointer itself holds something else (in
/// functions of libraries that were compiled without).
inline constexpr size_t kMaxScannedWords = 1024;
/// Two frames are at most so far apart.
inline constexpr uint64_t kMaxFrameBytes = uint64_t{8} << 20;

/// Where code lies, in a form that a signal handler may read.
struct CodeRanges {
  struct Range {
    uint64_t begin = 0;
    uint64_t end = 0;
  };
  std::array<Range, kMaxLoadedModules> ranges{};
  size_t count = 0;

  bool hold(uint64_t address) const;
};

/// Registers at the moment of a signal.
struct StackTop {
  uint64_t instruction = 0;
  uint64_t stack_pointer = 0;
  uint64_t frame_pointer = 0;
  uint64_t link = 0;  ///< the return address of a call just made; 0 where the processor keeps it on the stack
};

/// Reads memory that may not be there. A pipe does it: the kernel refuses what is not mapped.
class SafeReader {
 public:
  /// Not async-signal-safe; false when there is no pipe to be had.
  bool open();
  void close();
  /// Two words at `address`; false when they cannot be read.
  bool read(uint64_t address, std::array<uint64_t, 2>& words) const;

 private:
  int from_ = -1;
  int to_ = -1;
};

/// The interrupted instruction and the return addresses above it, innermost first, at most `capacity`; how many. Of a
/// call to where no code is, the caller comes second.
size_t walkFrames(const StackTop& top, const CodeRanges& code, const SafeReader& reader, uint64_t* frames,
                  size_t capacity);

}  // namespace morvik::host
