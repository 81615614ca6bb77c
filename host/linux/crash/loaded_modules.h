// The programs and libraries loaded into a process, with addresses and build ids.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace morvik::host {

/// A program or library with its code in memory.
struct LoadedModule {
  uint64_t bias = 0;   ///< memory address minus address in the file
  uint64_t begin = 0;  ///< executable bytes, end exclusive
  uint64_t end = 0;
  std::string build_id;  ///< lower-case hexadecimal; "" without one
  std::string path;

  bool holds(uint64_t address) const { return address >= begin && address < end; }
  friend bool operator==(const LoadedModule&, const LoadedModule&) = default;
};

/// Further modules are left out: their frames have no names.
inline constexpr size_t kMaxLoadedModules = 256;

/// The modules of this process now, the program first. Any thread; reads no file.
std::vector<LoadedModule> loadedModules();

}  // namespace morvik::host
