#include "host/crash/earlier_crash.h"

#include <cstdio>
#include <optional>
#include <variant>

#include "host/crash/crash_hook.h"

namespace morvik::host {
namespace {

constexpr const char* kOperation = "+[MorvikCore start]";

enum class RecordState { kDone, kToWait, kUnreadable };

RecordState stateAfter(const std::string& path, const kit::JsonCodec& json, const TakeCrash& take,
                       const services::Logger& logger) {
  const auto found = crashOfEarlierProcess(path, json);
  if (const auto* error = std::get_if<kit::Error>(&found)) {
    MORVIK_LOG(logger, kit::lcl_vWarning, kOperation,
               "Morvik host: a crash of an earlier process is not reported: %@. The file goes on as \"%@\": delete it "
               "if it does not matter.",
               *error, unreadableRecordPath(path));
    return RecordState::kUnreadable;
  }
  const auto& crash = std::get<std::optional<kit::UncaughtException>>(found);
  if (crash && crash->moment->facts.isAbsent()) {
    MORVIK_LOG(
        logger, kit::lcl_vWarning, kOperation,
        "Morvik host: the record of an earlier process's crash (%@) does not tell how the device was, as those of "
        "earlier versions do not: its report describes the device of now.",
        crash->reason.value_or(""));
  }
  return !crash || take(*crash) ? RecordState::kDone : RecordState::kToWait;
}

}  // namespace

std::string waitingRecordPath(const std::string& record_path) {
  return record_path + ".waiting";
}

std::string unreadableRecordPath(const std::string& record_path) {
  return record_path + ".unreadable";
}

std::vector<std::string> crashRecordPaths(const std::string& record_path) {
  return {record_path, waitingRecordPath(record_path), unreadableRecordPath(record_path)};
}

void reportEarlierCrashes(const std::string& record_path, const kit::JsonCodec& json, const TakeCrash& take,
                          const services::Logger& logger) {
  const std::string waiting = waitingRecordPath(record_path);
  for (const std::string& path : {waiting, record_path}) {
    switch (stateAfter(path, json, take, logger)) {
      case RecordState::kDone:
        std::remove(path.c_str());
        break;
      case RecordState::kUnreadable:
        std::rename(path.c_str(), unreadableRecordPath(path).c_str());
        break;
      case RecordState::kToWait:
        MORVIK_LOG(
            logger, kit::lcl_vWarning, kOperation,
            "Morvik host: the report of a crash can be kept neither in the store nor beside it. Its record waits "
            "for the next start as \"%@\", where one that waited before gives way: free some space, or make "
            "the folder writable.",
            waiting);
        std::rename(path.c_str(), waiting.c_str());
        break;
    }
  }
}

}  // namespace morvik::host
