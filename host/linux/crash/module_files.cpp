#include "host/linux/crash/module_files.h"

#include <string>

#include "services/text_codes.h"

namespace morvik::host {
namespace {

// Symbols come from the files themselves; nothing is searched for elsewhere, least of all on the network.
int noDebugInformation(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word, char**) {
  return -1;
}

constexpr Dwfl_Callbacks kCallbacks = {nullptr, noDebugInformation, nullptr, nullptr};

std::string buildIdOf(Dwfl_Module* file) {
  GElf_Addr bias = 0;
  if (dwfl_module_getelf(file, &bias) == nullptr)
    return "";
  const unsigned char* bits = nullptr;
  GElf_Addr address = 0;
  const int size = dwfl_module_build_id(file, &bits, &address);
  return size > 0 ? services::hexText({reinterpret_cast<const char*>(bits), static_cast<size_t>(size)}) : "";
}

/// Read separately, so that a replaced file never enters a session that unwinds frames.
bool isUnchanged(const LoadedModule& module) {
  const std::unique_ptr<Dwfl, void (*)(Dwfl*)> session(dwfl_begin(&kCallbacks), dwfl_end);
  if (session == nullptr)
    return false;
  dwfl_report_begin(session.get());
  Dwfl_Module* const file = dwfl_report_elf(session.get(), "", module.path.c_str(), -1, module.bias, true);
  dwfl_report_end(session.get(), nullptr, nullptr);
  return file != nullptr && buildIdOf(file) == module.build_id;
}

}  // namespace

ModuleFiles::ModuleFiles() : session_(dwfl_begin(&kCallbacks), dwfl_end) {}

Dwfl_Module* ModuleFiles::of(const LoadedModule& module) {
  const auto known = known_.find(module.bias);
  if (known != known_.end())
    return known->second;
  return known_[module.bias] = report(module);
}

Dwfl_Module* ModuleFiles::report(const LoadedModule& module) {
  if (session_ == nullptr || !isUnchanged(module))
    return nullptr;
  dwfl_report_begin_add(session_.get());
  Dwfl_Module* const file =
      dwfl_report_elf(session_.get(), module.path.c_str(), module.path.c_str(), -1, module.bias, true);
  dwfl_report_end(session_.get(), nullptr, nullptr);
  return file;
}

}  // namespace morvik::host
