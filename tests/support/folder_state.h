// The visible state of all files in a folder, to tell whether somebody touched them.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "tests/support/scratch_folder.h"

namespace morvik::test {

struct FileState {
  std::string bytes;
  int64_t changed_seconds = 0;  ///< of the content
  int64_t changed_nanoseconds = 0;
  uint64_t inode = 0;
  friend bool operator==(const FileState&, const FileState&) = default;
};

/// By name; the folder itself is ".", without bytes.
inline std::map<std::string, FileState> stateOf(const std::string& folder) {
  const auto look = [](const std::string& path, std::string bytes) {
    struct stat facts {};
    ::stat(path.c_str(), &facts);
    return FileState{std::move(bytes), facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec, facts.st_ino};
  };
  std::map<std::string, FileState> states{{".", look(folder, "")}};
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    states[entry.path().filename()] = look(entry.path(), bytesOf(entry.path()));
  return states;
}

}  // namespace morvik::test
