// The file for a fatal signal's record: prepared in advance, completed by a few writes.
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
/// How much of the stack is kept, from its innermost byte on.
inline constexpr size_t kMaxStackBytes = size_t{16} << 10;
inline constexpr size_t kMaxRegisters = 33;

/// Written first by the handler, before it accesses memory that may not be mapped. Everything is read by the same
/// machine.
struct SignalPart {
  int64_t time_microseconds = 0;  ///< since 1970
  uint64_t instruction = 0;
  uint64_t fault_address = 0;  ///< 0 for a signal that was sent
  int32_t signal = 0;
  uint32_t reserved = 0;
};

/// What the handler then finds out.
struct FramesPart {
  uint64_t frames[kMaxCrashFrames] = {};   ///< the interrupted instruction, and return addresses
  uint64_t registers[kMaxRegisters] = {};  ///< in the order of their numbers in debug information
  uint64_t stack_pointer = 0;
  uint32_t frame_count = 0;
  uint32_t register_count = 0;
  uint32_t app_in_focus = 0;
  uint32_t reserved = 0;
};

/// One crash, as a later process reads it. Parts that are missing or incomplete are empty.
struct SignalRecord {
  int64_t time_microseconds = 0;  ///< since 1970
  int32_t signal = 0;
  bool is_jump_to_nowhere = false;   ///< the interrupted instruction is not in any code
  std::vector<uint64_t> frames;      ///< at least the interrupted instruction; at most kMaxCrashFrames
  std::string note;                  ///< what the process had noted; "" when it had none
  std::optional<bool> app_in_focus;  ///< nothing: the process did not get that far
  std::vector<uint64_t> registers;
  uint64_t stack_pointer = 0;
  std::string stack;  ///< from the stack pointer on
};

/// The file as a later process reads it.
struct CrashRecordFile {
  std::vector<LoadedModule> modules;
  std::optional<SignalRecord> record;  ///< nothing: there was no signal
};

/// The file's path, next to the store in that folder.
std::string crashRecordPath(const std::string& store_folder);

/// Creates the file again (readable by this user only) with the modules of this process, and opens it for what the
/// handler appends. Returns the descriptor, or an error that says why there is none.
std::variant<int, kit::Error> prepareCrashRecord(const std::string& path, const std::vector<LoadedModule>& modules);

// The parts of a record, in this order, each by one write. Async-signal-safe; a failure cannot be reported.
void writeSignalPart(int file, const SignalPart& signal, std::string_view note = {});
void writeFramesPart(int file, const FramesPart& frames);
/// As much of it as is mapped.
void writeStackPart(int file, uint64_t stack_pointer);

/// Reads the file, also one of an earlier version. Nothing if there is none; an error if it cannot be read or is not a
/// record.
std::variant<std::optional<CrashRecordFile>, kit::Error> readCrashRecord(const std::string& path);

/// "SIGSEGV"; "signal 99" for an unknown one.
std::string signalName(int signal);

}  // namespace morvik::host
