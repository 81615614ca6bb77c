#include "host/linux/crash/stored_traces.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include "host/linux/crash/bare_frames.h"
#include "host/posix/open_file.h"

namespace morvik::host {
namespace {

constexpr const char* kTracesOperation = "+[MorvikCore start]";
constexpr const char* kTraceKey = "exception_log_trace";

using Traces = std::map<std::string, std::string, std::less<>>;  // named traces, by bare trace

/// Traces with bare frames, each once.
Traces bareTraces(const kit::Array& reports) {
  Traces traces;
  for (const kit::Value& report : reports) {
    const std::string trace(report[kTraceKey].string());
    if (holdsBareFrames(trace))
      traces.emplace(trace, "");
  }
  return traces;
}

void putInto(const services::MorvikGVUserDefaults& store, const Traces& traces) {
  store.inOneStep([&] {
    kit::MutableArray next;
    for (const kit::Value& report : store.MorvikCoreUserInfo_Crash().array()) {
      const auto named = traces.find(report[kTraceKey].string());
      if (named == traces.end()) {
        next.append(report);
        continue;
      }
      kit::MutableDictionary changed(report);
      changed.set(kTraceKey, named->second);
      next.append(kit::Value(std::move(changed)));
    }
    store.setMorvikCoreUserInfo_Crash(kit::Value(std::move(next)));
  });
}

bool isThere(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

bool make(const std::string& path) {
  const int file = openFile(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW, 0600);
  return file >= 0 && ::close(file) == 0;
}

}  // namespace

std::string namingMarkerPath(const std::string& store_folder) {
  return store_folder + "/crash-naming";
}

void nameStoredTraces(const services::MorvikGVUserDefaults& store, const std::string& marker_path,
                      const NameTrace& name, const services::Logger& logger) {
  Traces traces = bareTraces(store.MorvikCoreUserInfo_Crash().array());
  const bool was_tried = isThere(marker_path);
  if (was_tried) {
    MORVIK_LOG(logger, kit::lcl_vWarning, kTracesOperation,
               "Morvik host: an earlier start ended while it named the stacks of stored crash reports (%@). It is not "
               "tried again: they keep modules and offsets.",
               marker_path);
  }
  const bool is_to_name = !traces.empty() && !was_tried && make(marker_path);
  for (auto& [bare, named] : traces)
    named = is_to_name ? name(bare) : unnamedTrace(bare);
  if (is_to_name)
    std::remove(marker_path.c_str());
  if (!traces.empty())
    putInto(store, traces);
  // Until the reports are safe from another attempt, the next start must know of this one.
  if (was_tried && store.synchronize())
    std::remove(marker_path.c_str());
}

}  // namespace morvik::host
