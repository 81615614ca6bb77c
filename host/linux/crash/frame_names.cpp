#include "host/linux/crash/frame_names.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <string_view>

#include "host/linux/crash/module_files.h"
#include "services/type_names.h"

namespace morvik::host {
namespace {

constexpr size_t kAddressDigits = 16;

/// A C function named "f" is not "float".
std::string plainName(const std::string& name) {
  return isMangled(name) ? services::demangled(name.c_str()) : name;
}

/// A file directly in a system library folder or its architecture's subfolder ("/usr/lib",
/// "/usr/lib/x86_64-linux-gnu"); also the runtime library wherever an app keeps its own, and what the kernel maps.
bool isOfTheSystem(const LoadedModule& module) {
  constexpr std::array<std::string_view, 8> kFolders = {"/lib",     "/lib32",     "/lib64",     "/libx32",
                                                        "/usr/lib", "/usr/lib32", "/usr/lib64", "/usr/libx32"};
  constexpr std::array<std::string_view, 10> kRuntime = {"libc.so",    "libm.so",      "libstdc++.so", "libgcc_s.so",
                                                         "libc++.so",  "libc++abi.so", "libunwind.so", "libasan.so",
                                                         "libtsan.so", "libubsan.so"};
  const std::filesystem::path path(module.path);
  const std::string name = path.filename();
  if (!path.is_absolute() ||
      std::any_of(kRuntime.begin(), kRuntime.end(), [&](std::string_view each) { return name.starts_with(each); }))
    return true;
  std::filesystem::path folder = path.parent_path();
  if (folder.filename().string().find("-linux-") != std::string::npos)
    folder = folder.parent_path();
  return std::find(kFolders.begin(), kFolders.end(), folder.string()) != kFolders.end();
}

bool isProgram(const LoadedModule& module, const std::vector<LoadedModule>& modules) {
  return &module == &modules.front();
}

FrameOwner ownerOf(const LoadedModule& module, bool is_program, std::string_view name, bool has_called) {
  if (has_called && isCallOfTheApp(name))
    return FrameOwner::kApp;
  const FrameOwner by_name = ownerByName(name);
  return by_name == FrameOwner::kApp && !is_program && isOfTheSystem(module) ? FrameOwner::kSystem : by_name;
}

struct Name {
  std::string mangled;
  uint64_t offset = 0;
};

Name nameAt(Dwfl_Module* file, uint64_t address) {
  GElf_Off offset = 0;
  GElf_Sym symbol{};
  const char* const name =
      file == nullptr ? nullptr : dwfl_module_addrinfo(file, address, &offset, &symbol, nullptr, nullptr, nullptr);
  return name == nullptr ? Name{} : Name{name, offset};
}

std::string hexNumber(uint64_t number, size_t least_digits) {
  std::array<char, 16> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
  const std::string text(digits.data(), end);
  return "0x" + std::string(text.size() < least_digits ? least_digits - text.size() : 0, '0') + text;
}

}  // namespace

const LoadedModule* moduleAt(const std::vector<LoadedModule>& modules, uint64_t address) {
  const auto module = std::find_if(modules.begin(), modules.end(),
                                   [address](const LoadedModule& candidate) { return candidate.holds(address); });
  return module == modules.end() ? nullptr : &*module;
}

std::string frameBeginning(size_t index, const LoadedModule* module, uint64_t address) {
  const std::string name = module == nullptr ? "?" : std::filesystem::path(module->path).filename().string();
  return std::to_string(index) + "  " + name + "  " + hexNumber(address, kAddressDigits) +
         (module == nullptr ? "" : "  ");
}

std::string offsetText(const LoadedModule& module, uint64_t address) {
  return "+ " + hexNumber(address - module.bias, 1);
}

NamedFunction functionAt(ModuleFiles& files, const LoadedModule& module, size_t index, uint64_t address) {
  // A return address points after its call, which may be the last instruction of its function.
  const uint64_t inside = index == 0 ? address : address - 1;
  const Name name = nameAt(files.of(module), inside);
  if (name.mangled.empty())
    return {};
  return {name.mangled, plainName(name.mangled) + " + " + std::to_string(name.offset + (address - inside))};
}

std::vector<NamedFrame> namedFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames) {
  ModuleFiles files;
  std::vector<NamedFrame> all;
  all.reserve(frames.size());
  for (const uint64_t address : frames) {
    const size_t index = all.size();
    const LoadedModule* const module = moduleAt(modules, address);
    NamedFrame& frame = all.emplace_back();
    frame.text = frameBeginning(index, module, address);
    if (module == nullptr)
      continue;
    const NamedFunction function = functionAt(files, *module, index, address);
    frame.owner = ownerOf(*module, isProgram(*module, modules), function.mangled, index > 0);
    frame.text += function.text.empty() ? offsetText(*module, address) : function.text;
  }
  return all;
}

bool isCrashOfTheKit(const std::vector<NamedFrame>& frames, bool is_jump_to_nowhere) {
  const auto decides = std::find_if(frames.begin() + (is_jump_to_nowhere && !frames.empty() ? 1 : 0), frames.end(),
                                    [](const NamedFrame& frame) { return frame.owner != FrameOwner::kSystem; });
  return decides != frames.end() && decides->owner == FrameOwner::kKit;
}

}  // namespace morvik::host
