// The files of a process's modules, read with libdw: symbols and unwind tables.
#pragma once

#include <elfutils/libdwfl.h>

#include <map>
#include <memory>

#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

/// One libdw session. Files are mapped at their addresses in that process, each on first use. Not shared among threads.
class ModuleFiles {
 public:
  ModuleFiles();

  /// The module's file. Null if it is gone or has another build id now.
  Dwfl_Module* of(const LoadedModule& module);
  /// Null if libdw has none.
  Dwfl* session() const { return session_.get(); }

 private:
  Dwfl_Module* report(const LoadedModule& module);

  const std::unique_ptr<Dwfl, void (*)(Dwfl*)> session_;
  std::map<uint64_t, Dwfl_Module*> known_;  ///< by module bias
};

}  // namespace morvik::host
