// The file in which a fatal signal leaves its record: prepared while all is well, completed by a few writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/linux/crash/loaded_modules.h"
#include "kit/error.h"

namespace morvik::host {

inline constexpr size_t kMaxCrashFrames = 64;
/// So much of the stack is kept, from its innermost byte on.
inline constexpr size_t kMaxStackBytes = size_t{16} << 10;
inline constexpr size_t kMaxRegisters = 33;

/// What the handler writes first, before it looks at anything that may not be there. All that it writes is read by the
/// same machine.
struct SignalPart {
  int64_t time_microseconds = 0;  ///< since 1970
  uint64_t instruction = 0;
  uint64_t fault_address = 0;  ///< of a signal that was sent: none, 0
  int32_t signal = 0;
  uint32_t reserved = 0;
};

/// What it finds out then.
struct FramesPart {
  uint64_t frames[kMaxCrashFrames] = {};   ///< the interrupted instruction, and return addresses
  uint64_t registers[kMaxRegisters] = {};  ///< in the order in which debug information numbers them
  uint64_t stack_pointer = 0;
  uint32_t frame_count = 0;
  uint32_t register_count = 0;
  uint32_t app_in_focus = 0;
  uint32_t reserved = 0;
};

/// One crash, as a later process finds it. Parts that were not written, or only half, are empty.
struct SignalRecord {
  int64_t time_microseconds = 0;  ///< since 1970
  int32_t signal = 0;
  bool is_jump_to_nowhere = false;   ///< the interrupted instruction is where no code is
  std::vector<uint64_t> frames;      ///< at least the interrupted instruction; at most kMaxCrashFrames
  std::string note;                  ///< what the process had noted; "" when it had none
  std::optional<bool> app_in_focus;  ///< nothing: the process came not so far
  std::vector<uint64_t> registers;
  uint64_t stack_pointer = 0;
  std::string stack;  ///< from there on
};

/// The file as a later process finds it.
struct CrashRecordFile {
  std::vector<LoadedModule> modules;
  std::optional<SignalRecord> record;  ///< nothing: no signal came
};

/// Where the file lies beside the store in that folder.
std::string crashRecordPath(const std::string& store_folder);

/// Makes the file anew (readable by this user alone) with the modules of this process, and opens it for what the
/// handler writes behind them. The descriptor, or an error that says why there is none.
std::variant<int, kit::Error> prepareCrashRecord(const std::string& path, const std::vector<LoadedModule>& modules);

// The parts of a record, in this order, each by one write. Async-signal-safe; nobody is left to be told of a failure.
void writeSignalPart(int file, const SignalPart& signal, std::string_view note = {});
void writeFramesPart(int file, const FramesPart& frames);
/// As much of it as there is.
void writeStackPart(int file, uint64_t stack_pointer);

/// Reads the file, also one of an earlier version. Nothing when there is none; an error when it cannot be read or is no
/// such file.
std::variant<std::optional<CrashRecordFile>, kit::Error> readCrashRecord(const std::string& path);

/// "SIGSEGV"; "signal 99" for one without a name.
std::string signalName(int signal);

}  // namespace morvik::host
