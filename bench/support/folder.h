// A folder for one benchmark, removed with its content at the end.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace morvik::bench {

class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "morvik_bench_XXXXXX").string();
    path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace morvik::bench
