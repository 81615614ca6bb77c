#include "host/linux/crash/earlier_crash.h"

#include <cstdio>
#include <optional>
#include <variant>

#include "host/linux/crash/crash_hook.h"
#include "host/linux/crash/crash_record.h"
#include "host/posix/system_message.h"

namespace morvik::host {
namespace {

constexpr const char* kOperation = "+[MorvikCore start]";

enum class RecordState { kDone, kToWait, kUnreadable };

/// The record is renamed meanwhile: a start that finds that name knows that the previous start crashed on the record.
std::variant<std::optional<kit::UncaughtException>, kit::Error> readApart(const std::string& path,
                                                                          const kit::JsonCodec& json) {
  auto read = readCrashRecord(path);
  if (auto* error = std::get_if<kit::Error>(&read))
    return std::move(*error);
  const auto& file = std::get<std::optional<CrashRecordFile>>(read);
  if (!file || !file->record)
    return {};
  const std::string apart = triedRecordPath(path);
  if (std::rename(path.c_str(), apart.c_str()) != 0)
    return kit::Error{"cannot rename " + path + ": " + systemMessage()};
  auto found = crashOfEarlierProcess(apart, json);
  std::rename(apart.c_str(), path.c_str());
  return found;
}

RecordState stateAfter(const std::string& path, const kit::JsonCodec& json, const runtime::TakeCrash& take,
                       const services::Logger& logger) {
  const auto found = readApart(path, json);
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
        "Morvik host: the record of an earlier process's crash (%@) does not describe the device, like records of "
        "earlier versions: its report describes the device as it is now.",
        crash->reason.value_or(""));
  }
  return !crash || take(*crash) ? RecordState::kDone : RecordState::kToWait;
}

/// Another attempt would crash this start too.
void setAsideWhatEndedAStart(const std::string& path, const services::Logger& logger) {
  if (std::rename(triedRecordPath(path).c_str(), unreadableRecordPath(path).c_str()) != 0)
    return;
  MORVIK_LOG(
      logger, kit::lcl_vWarning, kOperation,
      "Morvik host: an earlier start ended while it named the stack of a crash. It is not tried again: the record "
      "goes on as \"%@\"; delete it if it does not matter.",
      unreadableRecordPath(path));
}

}  // namespace

std::string waitingRecordPath(const std::string& record_path) {
  return record_path + ".waiting";
}

std::string unreadableRecordPath(const std::string& record_path) {
  return record_path + ".unreadable";
}

std::string triedRecordPath(const std::string& record_path) {
  return record_path + ".tried";
}

std::vector<std::string> crashRecordPaths(const std::string& record_path) {
  const std::string waiting = waitingRecordPath(record_path);
  std::vector<std::string> paths;
  for (const std::string& path : {record_path, waiting}) {
    for (const std::string& each : {path, triedRecordPath(path), unreadableRecordPath(path)})
      paths.push_back(each);
  }
  return paths;
}

void reportEarlierCrashes(const std::string& record_path, const kit::JsonCodec& json, const runtime::TakeCrash& take,
                          const services::Logger& logger) {
  const std::string waiting = waitingRecordPath(record_path);
  for (const std::string& path : {waiting, record_path}) {
    setAsideWhatEndedAStart(path, logger);
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
            "Morvik host: the report of a crash can be kept neither in the store nor next to it. Its record waits "
            "for the next start as \"%@\", where it replaces one that waited before: free some space, or make "
            "the folder writable.",
            waiting);
        std::rename(path.c_str(), waiting.c_str());
        break;
    }
  }
}

}  // namespace morvik::host
