// The files of a process's modules, as libdw reads them: their symbols and how their frames are unwound.
#pragma once

#include <elfutils/libdwfl.h>

#include <map>
#include <memory>

#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

/// One session of libdw's. Files are opened at their place in the memory of that process, each when it is first asked
/// for. Not shared among threads.
class ModuleFiles {
 public:
  ModuleFiles();

  /// The module's file. Null when it is gone or has another build id by now.
  Dwfl_Module* of(const LoadedModule& module);
  /// Null when libdw has none.
  Dwfl* session() const { return session_.get(); }

 private:
  Dwfl_Module* report(const LoadedModule& module);

  const std::unique_ptr<Dwfl, void (*)(Dwfl*)> session_;
  std::map<uint64_t, Dwfl_Module*> known_;  ///< by the module's bias
};

}  // namespace morvik::host
