// What is loaded into a process, and where: programs and libraries by their build ids.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace morvik::host {

/// A program or a library with its code in memory.
struct LoadedModule {
  uint64_t bias = 0;   ///< what has to be taken off an address to get that in the file
  uint64_t begin = 0;  ///< its executable bytes, end exclusive
  uint64_t end = 0;
  std::string build_id;  ///< lower-case hexadecimal; "" without one
  std::string path;

  bool holds(uint64_t address) const { return address >= begin && address < end; }
  friend bool operator==(const LoadedModule&, const LoadedModule&) = default;
};

/// More are left out: their frames have no names.
inline constexpr size_t kMaxLoadedModules = 256;

/// Those of this process as it is now, the program itself first. Any thread; reads no file.
std::vector<LoadedModule> loadedModules();

}  // namespace morvik::host
