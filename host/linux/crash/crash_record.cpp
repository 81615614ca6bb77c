#include "host/linux/crash/crash_record.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

#include "host/posix/open_file.h"
#include "host/posix/write_all.h"

namespace morvik::host {
namespace {

constexpr std::string_view kFirstLine = "morvik crash record 2\n";
/// Of earlier versions, whose record is one structure.
constexpr std::string_view kFirstLineOfVersion1 = "morvik crash record 1\n";

struct RecordOfVersion1 {
  static constexpr uint64_t kMagic = 0x6d72766b5f736967;
  uint64_t magic = 0;
  int64_t time_microseconds = 0;
  uint64_t frames[kMaxCrashFrames] = {};
  int32_t signal = 0;
  uint32_t frame_count = 0;
  uint32_t app_in_focus = 0;
  uint32_t reserved = 0;
};

enum PartKind : uint32_t { kSignalPart = 1, kFramesPart = 2, kStackPart = 3 };

struct PartHead {
  static constexpr uint64_t kMagic = 0x6d72766b70617274;
  uint64_t magic = kMagic;
  uint32_t kind = 0;
  uint32_t bytes = 0;  ///< following this head; at most this many of the stack
};

constexpr std::string_view kEndOfModules = "--\n";
constexpr const char* kNoBuildId = "-";

std::string moduleLines(const std::vector<LoadedModule>& modules) {
  std::ostringstream lines;
  lines << std::hex;
  for (const LoadedModule& module : modules) {
    // A path with a line feed would read as two lines.
    if (module.path.find('\n') != std::string::npos)
      continue;
    lines << module.bias << ' ' << module.begin << ' ' << module.end << ' '
          << (module.build_id.empty() ? kNoBuildId : module.build_id) << ' ' << module.path << '\n';
  }
  return lines.str();
}

bool readModule(const std::string& line, LoadedModule& module) {
  std::istringstream fields(line);
  fields >> std::hex >> module.bias >> module.begin >> module.end >> module.build_id;
  if (!fields || fields.get() != ' ')
    return false;
  std::getline(fields, module.path);
  if (module.build_id == kNoBuildId)
    module.build_id.clear();
  return true;
}

kit::Error errorAt(const std::string& path, const char* what) {
  return {std::string(what) + " " + path + ": " + std::strerror(errno)};
}

template <typename Structure>
bool take(std::string_view& bytes, Structure& structure) {
  if (bytes.size() < sizeof structure)
    return false;
  std::memcpy(&structure, bytes.data(), sizeof structure);
  bytes.remove_prefix(sizeof structure);
  return true;
}

bool readModules(std::string_view& bytes, std::vector<LoadedModule>& modules) {
  while (bytes.substr(0, kEndOfModules.size()) != kEndOfModules) {
    const size_t end = bytes.find('\n');
    LoadedModule module;
    if (end == std::string_view::npos || modules.size() == kMaxLoadedModules ||
        !readModule(std::string(bytes.substr(0, end)), module))
      return false;
    modules.push_back(std::move(module));
    bytes.remove_prefix(end + 1);
  }
  bytes.remove_prefix(kEndOfModules.size());
  return true;
}

/// False if it is not one. A half-written record is empty.
bool readRecordOfVersion1(std::string_view bytes, std::optional<SignalRecord>& record) {
  RecordOfVersion1 found;
  if (!take(bytes, found))
    return true;
  if (found.magic != RecordOfVersion1::kMagic || found.frame_count > kMaxCrashFrames)
    return false;
  record.emplace();
  record->time_microseconds = found.time_microseconds;
  record->signal = found.signal;
  record->is_jump_to_nowhere = found.frame_count > 0 && found.frames[0] == 0;
  record->frames.assign(found.frames, found.frames + found.frame_count);
  record->app_in_focus = found.app_in_focus != 0;
  return true;
}

bool takeSignal(std::string_view part, SignalRecord& record) {
  SignalPart found;
  if (!take(part, found))
    return false;
  record.time_microseconds = found.time_microseconds;
  record.signal = found.signal;
  record.is_jump_to_nowhere =
      (found.signal == SIGSEGV || found.signal == SIGBUS) && found.fault_address == found.instruction;
  record.frames = {found.instruction};
  record.note = part;
  return true;
}

bool takeFrames(std::string_view part, SignalRecord& record) {
  FramesPart found;
  if (!take(part, found) || found.frame_count > kMaxCrashFrames || found.register_count > kMaxRegisters)
    return false;
  if (found.frame_count > 0)
    record.frames.assign(found.frames, found.frames + found.frame_count);
  record.registers.assign(found.registers, found.registers + found.register_count);
  record.stack_pointer = found.stack_pointer;
  record.app_in_focus = found.app_in_focus != 0;
  return true;
}

/// As readRecordOfVersion1(). An incomplete part ends the record, except the stack, which may end early.
bool readParts(std::string_view bytes, std::optional<SignalRecord>& record) {
  PartHead head;
  SignalRecord found;
  bool is_signal_known = false;
  while (take(bytes, head)) {
    const std::string_view part = bytes.substr(0, head.bytes);
    if (head.magic != PartHead::kMagic)
      return false;
    if (part.size() < head.bytes && head.kind != kStackPart)
      break;
    bytes.remove_prefix(part.size());
    if (head.kind == kSignalPart) {
      if (!takeSignal(part, found))
        return false;
      is_signal_known = true;
    } else if (head.kind == kFramesPart && !takeFrames(part, found)) {
      return false;
    } else if (head.kind == kStackPart) {
      found.stack = part.substr(0, kMaxStackBytes);
    }
  }
  if (is_signal_known)
    record = std::move(found);
  return true;
}

std::optional<CrashRecordFile> parsed(std::string_view bytes) {
  const bool is_version_1 = bytes.substr(0, kFirstLineOfVersion1.size()) == kFirstLineOfVersion1;
  const std::string_view first_line = is_version_1 ? kFirstLineOfVersion1 : kFirstLine;
  if (bytes.substr(0, first_line.size()) != first_line)
    return std::nullopt;
  bytes.remove_prefix(first_line.size());
  CrashRecordFile file;
  if (!readModules(bytes, file.modules) ||
      !(is_version_1 ? readRecordOfVersion1(bytes, file.record) : readParts(bytes, file.record)))
    return std::nullopt;
  return file;
}

template <size_t kPieces>
void writePart(int file, PartKind kind, std::array<iovec, kPieces> pieces) {
  PartHead head;
  head.kind = kind;
  for (size_t i = 1; i < kPieces; ++i)
    head.bytes += static_cast<uint32_t>(pieces[i].iov_len);
  pieces[0] = {&head, sizeof head};
  // Bypasses the C library, where memory checkers would stop at an unmapped stack.
  static_cast<void>(::syscall(SYS_writev, file, pieces.data(), kPieces));
}

iovec piece(const void* bytes, size_t size) {
  return {const_cast<void*>(bytes), size};
}

}  // namespace

std::string crashRecordPath(const std::string& store_folder) {
  return store_folder + "/crash-signal";
}

std::variant<int, kit::Error> prepareCrashRecord(const std::string& path, const std::vector<LoadedModule>& modules) {
  const int file = openFile(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW, 0600);
  if (file < 0)
    return errorAt(path, "cannot make");
  if (!writeAll(file, kFirstLine) || !writeAll(file, moduleLines(modules)) || !writeAll(file, kEndOfModules)) {
    const kit::Error error = errorAt(path, "cannot write");
    ::close(file);
    ::unlink(path.c_str());  // half a file would be taken for a damaged record
    return error;
  }
  return file;
}

void writeSignalPart(int file, const SignalPart& signal, std::string_view note) {
  writePart(file, kSignalPart, std::array{iovec{}, piece(&signal, sizeof signal), piece(note.data(), note.size())});
}

void writeFramesPart(int file, const FramesPart& frames) {
  writePart(file, kFramesPart, std::array{iovec{}, piece(&frames, sizeof frames)});
}

void writeStackPart(int file, uint64_t stack_pointer) {
  const auto* const stack = reinterpret_cast<const void*>(stack_pointer);  // NOLINT(performance-no-int-to-ptr)
  writePart(file, kStackPart, std::array{iovec{}, piece(stack, kMaxStackBytes)});
}

std::variant<std::optional<CrashRecordFile>, kit::Error> readCrashRecord(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    if (errno == ENOENT)
      return std::optional<CrashRecordFile>();
    return errorAt(path, "cannot read");
  }
  const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
  auto file = parsed(bytes);
  if (!file)
    return kit::Error{path + " is not a crash record"};
  return file;
}

std::string signalName(int signal) {
  const char* const name = ::sigabbrev_np(signal);
  return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

}  // namespace morvik::host
