// Crash reports: built on the thread that dies, sent at the next session start.

#include <algorithm>
#include <array>
#include <string_view>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "MorvikCoreLib/gone_from.h"
#include "services/describe.h"
#include "services/endpoints.h"
#include "services/guard.h"
#include "services/text_codes.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// A crash whose reason contains none of these is not the kit's.
constexpr std::array<std::string_view, 4> kWordsOfTheKit = {"mrvk", "fendo", "kesmo", "quint"};

/// Only a jailbroken device has an app that opens it.
constexpr const char* kPackageManagerUrl = "cydia://package/";

/// From this many bytes on an accepted upload drops no further report.
constexpr size_t kFirstBytesBeyondBudget = 100'001;

constexpr const char* kMakeOperation = "-[MorvikCoreLib makeCrashParameter:]";
constexpr const char* kSendOperation = "-[MorvikCoreLib sendCrashInfos]";
constexpr const char* kSendHandlerOperation = "-[MorvikCoreLib sendCrashInfos]_block_invoke";

constexpr const char* kInstallDatetimeKey = "install_datetime";
constexpr const char* kTimeKey = "local_kst_time";
constexpr const char* kReasonKey = "exception_reason";
constexpr const char* kTraceKey = "exception_log_trace";
constexpr const char* kDeviceInformationKey = "device_information";
constexpr const char* kAppInFocusKey = "app_in_focus";

struct VersionedModule {
  const char* key;
  const char* class_name;
};
constexpr std::array<VersionedModule, 7> kVersionedModules = {{
    {"kesmo_sdk_version", "KesmoOfferwallUpdateLog"},
    {"fendo_sdk_version", "FendoUpdateLog"},
    {"kesmo_display_ads", "KesmoDAUpdateLog"},
    {"commerce_sdk_version", "MorvikCommerceUpdateLog"},
    {"coupon_sdk_version", "MorvikCouponUpdateLog"},
    {"brisel_sdk_version", "MorvikBriselUpdateLog"},
    {"quint_sdk_version", "QuintUpdateLog"},
}};

constexpr services::Guard kMakeCrashParameterGuard{
    services::ungated("! MRVK_QA-MorvikCoreLib makeCrashParameter exception : %@\n"),
    services::ungated("! MRVK_QA-MorvikCoreLib makeCrashParameter exception : %@\n")};

constexpr services::Guard kKeepReportGuard{
    services::oneLine(lcl_vTrace,
                      "MRVK_QA-[MorvikCoreLib error] Exception from startSessinAfter fail to save initial idfa  : %@]"),
    services::oneLine(
        lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception from startSessinAfter fail to save initial idfa  : %@]")};

std::string traceOf(const std::vector<std::string>& call_stack_symbols) {
  std::string trace;
  for (const std::string& symbol : call_stack_symbols)
    trace += symbol + "<br>";
  return trace;
}

}  // namespace

// ------------------------------------------------------------------------------------------------------- the report

/// Searching an absent text reports a match at its start, so a crash without a reason concerns the kit.
bool MorvikCoreLib::concernsTheKit(const std::optional<std::string>& reason) {
  if (!reason)
    return true;
  const std::string lower = services::inLowerCase(*reason);
  return std::any_of(kWordsOfTheKit.begin(), kWordsOfTheKit.end(),
                     [&lower](std::string_view word) { return lower.find(word) != std::string::npos; });
}

/// The queue is read and written in one step: see keepReport().
void MorvikCoreLib::makeCrashParameter(const kit::UncaughtException& exception) {
  const services::Logger logger = log().withoutWaiting();
  services::guarded(logger, kMakeCrashParameterGuard, MORVIK_HERE(kMakeOperation), [&] {
    if (concernsTheKit(exception.reason))
      keepReport(logger, crashReport(exception));
  });
}

bool MorvikCoreLib::takeCrashOfEarlierProcess(const kit::UncaughtException& crash) {
  const auto report = services::guarded(log(), kMakeCrashParameterGuard, MORVIK_HERE(kMakeOperation),
                                        [&] { return concernsTheKit(crash.reason) ? crashReport(crash) : Value(); });
  // What cannot be made now could not be made at the next start either.
  if (!report || report->isAbsent())
    return true;
  return services::guarded(
             log(), kKeepReportGuard, MORVIK_HERE(kMakeOperation),
             [&] { return queueReports(Value(kit::Array{*report}).array()) || !ports_.report_shelf.append(*report); })
      .value_or(false);
}

Value MorvikCoreLib::blank(const std::optional<std::string>& text) const {
  return util().checkNilToBlankString(text ? Value(*text) : Value());
}

Value MorvikCoreLib::moduleVersion(const char* class_name) const {
  const kit::Module* module = ports_.modules.find(class_name);
  if (module == nullptr)
    return "not installed";
  return blank(module->getSDKVersion ? module->getSDKVersion() : std::nullopt);
}

Value MorvikCoreLib::crashReport(const kit::UncaughtException& exception) const {
  const std::string trace = traceOf(exception.call_stack_symbols);
  const bool is_known = exception.moment && exception.moment->facts.isDictionary();
  const Value facts = is_known ? exception.moment->facts : crashFacts();
  const kit::CrashMoment moment =
      exception.moment ? *exception.moment : kit::CrashMoment{ports_.clock.now(), isAppinFocus_};
  kit::MutableDictionary device(facts[kDeviceInformationKey]);
  device.set(kAppInFocusKey, moment.app_in_focus);
  kit::MutableDictionary report(facts);
  report.set(kTimeKey, blank(services::koreaDateTimeText(moment.date)));
  report.set(kReasonKey, blank(exception.reason));
  report.set(kTraceKey, blank(trace));
  report.set(kDeviceInformationKey, Value(std::move(device)));
  return Value(std::move(report));
}

Value MorvikCoreLib::crashFacts() const {
  std::array<Value, kVersionedModules.size()> versions;
  for (size_t i = 0; i < versions.size(); ++i)
    versions[i] = moduleVersion(kVersionedModules[i].class_name);
  kit::MutableDictionary facts;
  facts.set("idfa", blank(util().IDFA()));
  facts.set("os_type", blank("ios"));
  facts.set("os_version", blank(services::format("i_%@", {ports_.device.systemVersion()})));
  facts.set("appkey", blank(services().appKey()));
  facts.set("app_version_name", blank(ports_.bundle.objectForInfoDictionaryKey(kit::kCFBundleShortVersionStringKey)));
  facts.set("app_version_code", blank(ports_.bundle.objectForInfoDictionaryKey(kit::kCFBundleVersionKey)));
  facts.set(kInstallDatetimeKey, blank(store().tryGetString(services::property::fendoUserInfo_install_datetime)));
  facts.set("package_name", blank(ports_.bundle.objectForInfoDictionaryKey(kit::kCFBundleIdentifierKey)));
  facts.set("common_sdk_version", blank(ports_.update_log.getSDKVersion()));
  for (size_t i = 0; i < versions.size(); ++i)
    facts.set(kVersionedModules[i].key, versions[i]);
  for (const char* of_the_crash : {kTimeKey, kReasonKey, kTraceKey})
    facts.set(of_the_crash, "");
  facts.set(kDeviceInformationKey, deviceInformation(isAppinFocus_));
  return Value(std::move(facts));
}

Value MorvikCoreLib::deviceInformation(bool app_in_focus) const {
  const Value free_disk = util().freeDiskSpace();
  return kit::Dictionary{
      {kAppInFocusKey, app_in_focus},
      {"root_device", ports_.device.canOpenURL(kit::Url(kPackageManagerUrl))},
      {"device_model", blank(util().platformString())},
      {"free_device_storage", free_disk.isAbsent() ? Value("") : free_disk},
      {"free_memory", util().memoryFormatter(util().getFreeRam())},
  };
}

void MorvikCoreLib::keepReport(const services::Logger& logger, const Value& report) {
  services::guarded(logger, kKeepReportGuard, MORVIK_HERE(kMakeOperation), [&] {
    if (store().tryAppendAndSynchronize(services::property::MorvikCoreUserInfo_Crash, report))
      return;
    if (const auto error = ports_.report_shelf.append(report))
      throw kit::Exception{"MorvikCrashReportLostException", error->message, {}};
  });
}

// --------------------------------------------------------------------------------------------------------- the shelf

/// Takes from the shelf the reports that found the store in use. They leave it only once the store has them.
void MorvikCoreLib::takeInShelvedReports() {
  const kit::Array reports = ports_.report_shelf.reports();
  if (reports.empty() || queueReports(reports))
    ports_.report_shelf.clear();
}

/// Leaves out what the queue holds already: a start that died before it could clear the shelf put it there. Adds the
/// install's time to a report that could not read it because the store was in use. Returns whether all are stored; if
/// not, the reports leave the queue again, which may have grown meanwhile by those of a recovered store.
bool MorvikCoreLib::queueReports(const kit::Array& reports) {
  const std::string install_datetime = store().fendoUserInfo_install_datetime().value_or("");
  kit::MutableArray added;
  const bool was_absent = store().inOneStep([&] {
    const kit::Value queue = store().MorvikCoreUserInfo_Crash();
    const kit::Array queued = queue.array();
    kit::MutableArray next(queue);
    for (const Value& report : reports) {
      kit::MutableDictionary completed(report);
      if (report[kInstallDatetimeKey].string().empty())
        completed.set(kInstallDatetimeKey, install_datetime);
      const Value record(std::move(completed));
      if (std::find(queued.begin(), queued.end(), record) != queued.end())
        continue;
      next.append(record);
      added.append(record);
    }
    ledger().recorded(kit::LedgerKind::kCrashReports, added.size());
    store().setMorvikCoreUserInfo_Crash(Value(std::move(next)));
    return queue.isAbsent();
  });
  if (store().synchronize())
    return true;
  store().inOneStep([&] {
    kit::MutableArray queue(store().MorvikCoreUserInfo_Crash());
    kit::MutableArray gone;
    for (size_t i = 0; i < added.size(); ++i) {
      // The latest of equal ones: the file may have held one, and that one stays.
      size_t end = queue.size();
      while (end > 0 && !(queue[end - 1] == added[i]))
        --end;
      if (end == 0)
        continue;
      gone.append(queue[end - 1]);
      queue.removeAt(end - 1);
    }
    ledger().removed(kit::LedgerKind::kCrashReports, Value(std::move(gone)).array(), kit::LedgerReason::kNotKept);
    store().setMorvikCoreUserInfo_Crash(was_absent && queue.empty() ? Value() : Value(std::move(queue)));
  });
  return false;
}

// -------------------------------------------------------------------------------------------------------- the upload

struct MorvikCoreLib::SentCrashes {
  uint64_t stores_known = 0;  ///< stores_brought_ before they were read
  Value queue;
  Value remaining;  ///< of the queue, once the service has it
  kit::LedgerTicket ticket = 0;
};

/// The budget decides what is dropped once the service has it; what is sent is always the whole queue.
void MorvikCoreLib::sendCrashInfos() {
  if (isGateClosed() || util().getNetworkStatus() == kit::kNetworkUnknown)
    return;
  SentCrashes sent{.stores_known = stores_brought_, .queue = store().MorvikCoreUserInfo_Crash(), .remaining = {}};
  MORVIK_LOG(log(), lcl_vDebug, kSendOperation, "MRVK_QA-sendCrashInfos parameterInfo : %@", sent.queue);
  sent.remaining = remainingCrashInfos(sent.queue);
  sent.ticket = ledger().carries({.kind = kit::LedgerKind::kCrashReports, .records = sent.queue.array()});
  auto request = services::jsonPostRequest(ports_.endpoints, services::Endpoint::kCrashReport, sent.queue);
  services::run(
      requestTools(), std::move(request),
      [self = shared_from_this(), sent](const Value& json) { self->crashUploadDidSucceed(json, sent); },
      [logger = log()](const std::optional<kit::Response>& response, const kit::Error& error) {
        MORVIK_LOG(logger, lcl_vError, kSendHandlerOperation, "MRVK_QA-Recieved an HTTP %ld",
                   services::statusCode(response));
        MORVIK_LOG(logger, lcl_vError, kSendHandlerOperation, "MRVK_QA-The error was: %@", error);
      },
      {.when_held = kit::WhenHeld::kEnds, .ticket = sent.ticket});
}

/// The queue without the reports that the budget counts; equal reports are removed together. Absent if it is absent.
Value MorvikCoreLib::remainingCrashInfos(const Value& queue) const {
  if (queue.isAbsent())
    return queue;
  kit::MutableArray remaining(queue);
  size_t bytes = 0;
  const kit::Array reports = queue.array();
  for (const Value& report : reports) {
    remaining.removeAllEqualTo(report);
    bytes += services::describe(report).size();
    if (bytes >= kFirstBytesBeyondBudget) {
      MORVIK_LOG(log(), lcl_vDebug, kSendOperation,
                 "MRVK_QA-overflow of limited stringByte, so the remanent crash infos not gonna send to server in this "
                 "time");
      break;
    }
  }
  return Value(std::move(remaining));
}

void MorvikCoreLib::crashUploadDidSucceed(const Value& json, const SentCrashes& sent) {
  MORVIK_LOG(log(), lcl_vTrace, kSendHandlerOperation, "MRVK_QA-[MorvikCoreLib] sendCrashInfos result  : %@]", json);
  if (util().checkIntegerNilToZero(json["code"]) != 0)
    return ledger().answered(sent.ticket, kit::LedgerAnswer::kNotAccepted);
  ledger().answered(sent.ticket,
                    json["code"].isAbsent() ? kit::LedgerAnswer::kAcceptedEmpty : kit::LedgerAnswer::kAccepted);
  Value left = sent.remaining;
  const bool is_set = store().inOneStep([&] {
    if (sent.stores_known != stores_brought_)
      return false;
    ledger().removed(kit::LedgerKind::kCrashReports, goneFrom(store().MorvikCoreUserInfo_Crash(), left),
                     kit::LedgerReason::kAddedDuringUpload);
    store().setMorvikCoreUserInfo_Crash(left);
    return true;
  });
  if (is_set) {
    store().synchronize();
  } else {
    removeDelivered(sent);
    left = store().MorvikCoreUserInfo_Crash();
  }
  if (left.size() > 0)
    sendCrashInfos();
}

/// The reports of a store that was recovered meanwhile stay.
void MorvikCoreLib::removeDelivered(const SentCrashes& sent) {
  kit::MutableArray delivered(sent.queue);
  const kit::Array remaining = sent.remaining.array();
  for (const Value& report : remaining)
    delivered.removeAllEqualTo(report);
  removeSent(kit::LedgerKind::kCrashReports, Value(std::move(delivered)).array());
}

// ------------------------------------------------------------------------------------------------------------ threads

std::string MorvikCoreLib::getPrettyCurrentThreadDescription(const kit::Threads& threads) {
  std::string description = threads.currentThreadDescription();
  const size_t open = description.find('{');
  if (open == std::string::npos)
    return description;
  const std::string_view second = std::string_view(description).substr(open + 1);
  return std::string(second.substr(0, second.find_first_of("{}")));
}

}  // namespace morvik
