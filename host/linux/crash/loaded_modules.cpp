#include "host/linux/crash/loaded_modules.h"

#include <elf.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string_view>

#include "services/text_codes.h"

namespace morvik::host {
namespace {

std::string programPath() {
  std::array<char, PATH_MAX> path{};
  const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
  return size > 0 ? std::string(path.data(), static_cast<size_t>(size)) : std::string();
}

/// Including the final zero, as in a note.
constexpr std::string_view kGnu{"GNU\0", 4};

constexpr size_t padded(size_t size) {
  return (size + 3) & ~size_t{3};
}

/// The build id among a segment's notes; "" if there is none.
std::string buildIdIn(std::string_view notes) {
  while (notes.size() >= sizeof(ElfW(Nhdr))) {
    ElfW(Nhdr) header{};
    std::memcpy(&header, notes.data(), sizeof header);
    notes.remove_prefix(sizeof header);
    const size_t name = padded(header.n_namesz);
    const size_t whole = name + padded(header.n_descsz);
    if (whole > notes.size())
      break;
    const bool is_build_id = header.n_type == NT_GNU_BUILD_ID && notes.substr(0, header.n_namesz) == kGnu;
    if (is_build_id)
      return services::hexText(notes.substr(name, header.n_descsz));
    notes.remove_prefix(whole);
  }
  return "";
}

LoadedModule moduleOf(const dl_phdr_info& info) {
  LoadedModule module;
  module.bias = info.dlpi_addr;
  module.path = info.dlpi_name != nullptr ? info.dlpi_name : "";
  for (const ElfW(Phdr)* segment = info.dlpi_phdr; segment != info.dlpi_phdr + info.dlpi_phnum; ++segment) {
    const uint64_t begin = info.dlpi_addr + segment->p_vaddr;
    if (segment->p_type == PT_LOAD && (segment->p_flags & PF_X) != 0) {
      module.begin = module.end == 0 ? begin : std::min(module.begin, begin);
      module.end = std::max(module.end, begin + segment->p_memsz);
    } else if (segment->p_type == PT_NOTE && module.build_id.empty()) {
      const auto* const notes = reinterpret_cast<const char*>(begin);  // NOLINT(performance-no-int-to-ptr)
      module.build_id = buildIdIn({notes, segment->p_memsz});
    }
  }
  return module;
}

}  // namespace

std::vector<LoadedModule> loadedModules() {
  std::vector<LoadedModule> modules;
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* found) {
        auto& all = *static_cast<std::vector<LoadedModule>*>(found);
        if (all.size() == kMaxLoadedModules)
          return 1;
        LoadedModule module = moduleOf(*info);
        if (module.path.empty() && all.empty())
          module.path = programPath();
        if (module.end != 0)
          all.push_back(std::move(module));
        return 0;
      },
      &modules);
  return modules;
}

}  // namespace morvik::host
