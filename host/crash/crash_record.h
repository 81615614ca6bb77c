// The file in which a fatal signal leaves its record: prepared while all is well, completed by one write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/crash/loaded_modules.h"
#include "kit/error.h"

namespace morvik::host {

inline constexpr size_t kMaxCrashFrames = 64;

/// What the signal handler writes, as it lies in memory: it is read by the same machine.
struct SignalRecord {
  static constexpr uint64_t kMagic = 0x6d72766b5f736967;
  uint64_t magic = kMagic;
  int64_t time_microseconds = 0;  ///< since 1970
  uint64_t frames[kMaxCrashFrames] = {};
  int32_t signal = 0;
  uint32_t frame_count = 0;
  uint32_t app_in_focus = 0;
  uint32_t reserved = 0;
};

/// The file as a later process finds it.
struct CrashRecordFile {
  std::vector<LoadedModule> modules;
  std::optional<SignalRecord> record;  ///< nothing: no signal came
};

/// Where the file lies beside the store in that folder.
std::string crashRecordPath(const std::string& store_folder);

/// Makes the file anew (readable by this user alone) with the modules of this process, and opens it for the one write
/// behind them. The descriptor, or an error that says why there is none.
std::variant<int, kit::Error> prepareCrashRecord(const std::string& path, const std::vector<LoadedModule>& modules);

/// Reads the file. Nothing when there is none; an error when it cannot be read or is no such file.
std::variant<std::optional<CrashRecordFile>, kit::Error> readCrashRecord(const std::string& path);

/// "SIGSEGV"; "signal 99" for one without a name.
std::string signalName(int signal);

}  // namespace morvik::host
