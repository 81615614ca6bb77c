#include "host/crash/frame_names.h"

#include <elfutils/libdwfl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <map>
#include <memory>
#include <string_view>

#include "services/text_codes.h"
#include "services/type_names.h"

namespace morvik::host {
namespace {

constexpr size_t kAddressDigits = 16;

constexpr std::string_view kMangled = "_Z";

/// A function of C's named "f" is no "float".
std::string plainName(const std::string& name) {
  return name.substr(0, kMangled.size()) == kMangled ? services::demangled(name.c_str()) : name;
}

/// By the mangled name, in which what a function is a member of stands first: a function of the app's that only takes
/// an argument of the kit's is the app's. A lambda, and what else is local to a function, is that function's.
bool isOurs(std::string_view mangled) {
  constexpr std::string_view kNestings = "ZNKVrL";
  constexpr std::string_view kOurNamespace = "6morvik";
  if (mangled.substr(0, kMangled.size()) != kMangled)
    return false;
  const size_t first = mangled.find_first_not_of(kNestings, 1);
  return first != std::string_view::npos && mangled.substr(first, kOurNamespace.size()) == kOurNamespace;
}

struct Name {
  std::string mangled;
  uint64_t offset = 0;
};

/// The symbol tables of the modules' files, each opened when it is first asked.
class Symbols {
 public:
  Symbols() : session_(dwfl_begin(&kCallbacks), dwfl_end) {}

  Name find(const LoadedModule& module, uint64_t address) {
    Dwfl_Module* const table = tableOf(module);
    GElf_Off offset = 0;
    GElf_Sym symbol{};
    const char* const name =
        table == nullptr ? nullptr : dwfl_module_addrinfo(table, address, &offset, &symbol, nullptr, nullptr, nullptr);
    if (name == nullptr)
      return {};
    return {name, offset};
  }

 private:
  Dwfl_Module* tableOf(const LoadedModule& module) {
    const auto known = tables_.find(module.bias);
    if (known != tables_.end())
      return known->second;
    return tables_[module.bias] = report(module);
  }

  Dwfl_Module* report(const LoadedModule& module) {
    if (session_ == nullptr)
      return nullptr;
    dwfl_report_begin_add(session_.get());
    Dwfl_Module* const table =
        dwfl_report_elf(session_.get(), module.path.c_str(), module.path.c_str(), -1, module.bias, true);
    dwfl_report_end(session_.get(), nullptr, nullptr);
    return table != nullptr && isTheSame(table, module) ? table : nullptr;
  }

  static bool isTheSame(Dwfl_Module* table, const LoadedModule& module) {
    GElf_Addr bias = 0;
    if (dwfl_module_getelf(table, &bias) == nullptr)
      return false;
    const unsigned char* bits = nullptr;
    GElf_Addr address = 0;
    const int size = dwfl_module_build_id(table, &bits, &address);
    const std::string build_id =
        size > 0 ? services::hexText({reinterpret_cast<const char*>(bits), static_cast<size_t>(size)}) : "";
    return build_id == module.build_id;
  }

  // Symbols come from the files themselves; nothing is looked for elsewhere, least of all on the network.
  static int noDebugInformation(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                                char**) {
    return -1;
  }
  static constexpr Dwfl_Callbacks kCallbacks = {nullptr, noDebugInformation, nullptr, nullptr};

  std::unique_ptr<Dwfl, void (*)(Dwfl*)> session_;
  std::map<uint64_t, Dwfl_Module*> tables_;
};

std::string hexNumber(uint64_t number, size_t least_digits) {
  std::array<char, 16> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
  const std::string text(digits.data(), end);
  return "0x" + std::string(text.size() < least_digits ? least_digits - text.size() : 0, '0') + text;
}

NamedFrame named(size_t index, uint64_t address, const LoadedModule* module, Symbols& symbols) {
  NamedFrame frame;
  frame.text = std::to_string(index) + "  ";
  if (module == nullptr) {
    frame.text += "?  " + hexNumber(address, kAddressDigits);
    return frame;
  }
  // A return address stands behind its call, which may be the last instruction of its function.
  const uint64_t inside = index == 0 ? address : address - 1;
  const Name name = symbols.find(*module, inside);
  frame.is_ours = isOurs(name.mangled);
  frame.text +=
      std::filesystem::path(module->path).filename().string() + "  " + hexNumber(address, kAddressDigits) + "  ";
  if (name.mangled.empty())
    frame.text += "+ " + hexNumber(address - module->bias, 1);
  else
    frame.text += plainName(name.mangled) + " + " + std::to_string(name.offset + (address - inside));
  return frame;
}

}  // namespace

std::vector<NamedFrame> namedFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames) {
  Symbols symbols;
  std::vector<NamedFrame> all;
  all.reserve(frames.size());
  for (const uint64_t address : frames) {
    const auto module = std::find_if(modules.begin(), modules.end(),
                                     [address](const LoadedModule& candidate) { return candidate.holds(address); });
    all.push_back(named(all.size(), address, module == modules.end() ? nullptr : &*module, symbols));
  }
  return all;
}

bool holdsFrameOfOurs(const std::vector<NamedFrame>& frames) {
  return std::any_of(frames.begin(), frames.end(), [](const NamedFrame& frame) { return frame.is_ours; });
}

}  // namespace morvik::host
