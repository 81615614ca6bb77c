#include "host/crash/crash_record.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

#include "host/files/write_all.h"

namespace morvik::host {
namespace {

constexpr std::string_view kFirstLine = "morvik crash record 1\n";
constexpr std::string_view kEndOfModules = "--\n";
constexpr const char* kNoBuildId = "-";

std::string moduleLines(const std::vector<LoadedModule>& modules) {
  std::ostringstream lines;
  lines << std::hex;
  for (const LoadedModule& module : modules) {
    // A path with a line feed could not be told from two lines.
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

std::optional<CrashRecordFile> parsed(std::string_view bytes) {
  if (bytes.substr(0, kFirstLine.size()) != kFirstLine)
    return std::nullopt;
  bytes.remove_prefix(kFirstLine.size());
  CrashRecordFile file;
  while (bytes.substr(0, kEndOfModules.size()) != kEndOfModules) {
    const size_t end = bytes.find('\n');
    LoadedModule module;
    if (end == std::string_view::npos || file.modules.size() == kMaxLoadedModules ||
        !readModule(std::string(bytes.substr(0, end)), module))
      return std::nullopt;
    file.modules.push_back(std::move(module));
    bytes.remove_prefix(end + 1);
  }
  bytes.remove_prefix(kEndOfModules.size());
  SignalRecord record;
  if (bytes.size() < sizeof record)
    return file;  // none, or one of which only a part was written
  std::memcpy(&record, bytes.data(), sizeof record);
  if (record.magic != SignalRecord::kMagic || record.frame_count > kMaxCrashFrames)
    return std::nullopt;
  file.record = record;
  return file;
}

}  // namespace

std::string crashRecordPath(const std::string& store_folder) {
  return store_folder + "/crash-signal";
}

std::variant<int, kit::Error> prepareCrashRecord(const std::string& path, const std::vector<LoadedModule>& modules) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file < 0)
    return errorAt(path, "cannot make");
  if (!writeAll(file, kFirstLine) || !writeAll(file, moduleLines(modules)) || !writeAll(file, kEndOfModules)) {
    const kit::Error error = errorAt(path, "cannot write");
    ::close(file);
    ::unlink(path.c_str());  // half of it would be taken for a damaged record
    return error;
  }
  return file;
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
    return kit::Error{path + " is no crash record"};
  return file;
}

std::string signalName(int signal) {
  const char* const name = ::sigabbrev_np(signal);
  return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

}  // namespace morvik::host
