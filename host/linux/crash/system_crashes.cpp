#include "host/linux/crash/system_crashes.h"

#include <utility>

#include "host/linux/crash/bare_frames.h"
#include "host/linux/crash/crash_hook.h"
#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/earlier_crash.h"
#include "host/linux/crash/loaded_modules.h"
#include "host/linux/crash/stored_traces.h"

namespace morvik::host {

void SystemCrashes::nameStoredTraces(const services::MorvikGVUserDefaults& store) {
  host::nameStoredTraces(
      store, namingMarkerPath(folder_), [](const std::string& trace) { return namedTrace(trace, loadedModules()); },
      logger_);
}

void SystemCrashes::reportEarlier(const runtime::TakeCrash& take) {
  reportEarlierCrashes(crashRecordPath(folder_), json_, take, logger_);
}

std::variant<std::unique_ptr<runtime::MachineCrashHook>, kit::Error> SystemCrashes::install(
    runtime::CrashReporting reporting) {
  auto installed = CrashHook::install({std::move(reporting), crashRecordPath(folder_)});
  if (auto* error = std::get_if<kit::Error>(&installed))
    return std::move(*error);
  return std::move(std::get<std::unique_ptr<CrashHook>>(installed));
}

}  // namespace morvik::host
