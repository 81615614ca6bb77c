// What leaves the device: every request of the kit, made with the kit's own siblings in each state of consent, opened,
// and compared field by field with docs/privacy.md.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>

#include "testing/fake_calendar.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/sealed_payload.h"
#include "testing/virtual_loop.h"
#include "tests/journey/assembled_ports.h"
#include "tests/support/document_block.h"

namespace morvik::journey {
namespace {

using kit::Dictionary;
using kit::Value;
using testing::Answer;

/// Part of every text that the app, its user, a link, a crash or the ad client provides, so that it is recognized
/// wherever it leaves.
constexpr std::string_view kFree = "(free)";

/// What a crash report says of a missing module.
constexpr std::string_view kNotInstalled = "not installed";

// ------------------------------------------------------------------------------------------------------ what was seen

/// Kinds of values by path; an empty text is a kind of its own.
using Fields = std::map<std::string, std::set<std::string>>;

struct RequestKind {
  std::string headers;
  Fields fields;
};

/// By method and path.
using Seen = std::map<std::string, RequestKind>;

bool isFree(std::string_view text) {
  return text.find(kFree) != std::string_view::npos;
}

std::string kindOfText(std::string_view text) {
  if (text == kNotInstalled)
    return '"' + std::string(text) + '"';
  if (isFree(text))
    return "free text";
  return text.empty() ? "empty text" : "text";
}

std::string kindOf(const Value& value) {
  if (value.isString())
    return kindOfText(value.string());
  if (value.isBoolean())
    return "boolean";
  return value.isNumber() ? "number" : "other";
}

/// Names that are free themselves appear as an asterisk.
std::string pathOf(const std::string& parent, std::string_view name) {
  return parent + (parent.empty() ? "" : ".") + (isFree(name) ? "*" : std::string(name));
}

void collect(const Value& value, const std::string& path, Fields& fields) {
  if (value.isDictionary()) {
    if (value.size() == 0)
      fields[path.empty() ? "(the whole)" : path].insert("empty object");
    for (const kit::Entry& entry : value.dictionary())
      collect(entry.value, pathOf(path, entry.key.string()), fields);
  } else if (value.isArray()) {
    if (value.size() == 0)
      fields[path + "[]"].insert("none");
    for (const Value& element : value.array())
      collect(element, path + "[]", fields);
  } else {
    fields[path].insert(kindOf(value));
  }
}

void add(Seen& seen, const Seen& more) {
  for (const auto& [name, kind] : more) {
    seen[name].headers = kind.headers;
    for (const auto& [path, values] : kind.fields)
      seen[name].fields[path].insert(values.begin(), values.end());
  }
}

// ----------------------------------------------------------------------------------------------------- who is seen

struct DeviceCase {
  bool has_identifier = true;
  bool has_hashed_puid = true;
  bool has_modules = false;
  bool is_forgotten = false;
};

class Device {
 public:
  explicit Device(const DeviceCase& device_case) : case_(device_case) {
    loop_.addCommit([this] { store_.commitTurn(); });
    transport_.setDefaultAnswer(Answer::error("down"));
    start();
    if (case_.is_forgotten)
      loop_.perform([this] { core().gdprForgetMe(true); });
  }

  /// Makes every request there is, for an attributed install.
  void makeEachRequest() {
    loop_.perform([this] {
      parts_->properties.setFendoUserInfo_fendoUserNo(1001);
      parts_->properties.setFendoUserInfo_referralKey(7);
      parts_->properties.setFendoUserInfo_install_datetime("20240101000000");
    });
    keepRecords();
    loop_.perform([this] { core().searchAds(); });
    loop_.perform([this] {
      core().setFB_DeepLinkData(Dictionary{});
      core().setReferralUrlForFacebook(kit::Url("app://(free)?ck=3&sub_referral=(free)"));
    });
    loop_.perform([this] {
      core().conversion(core().makeConversionParameter());
      core().iAdAppAttributionTracking(core().makeIAdAppAttributionTrackingParameter(loop_.now(), loop_.now()));
      core().pushTracking();
      openALink();
      core().getPremiumPostbackInfoss();
      core().sendCrashInfos();
      core().sendUserDemoInfos(core().makeDemoInfoParameter());
      core().getSchedule(Dictionary{{"k", "journey-app"}, {"language", "ko"}, {"checksum", "init"}});
    });
    askToBeForgottenAndTakeItBack();
  }

  /// A new install: its first session without a network, later ones with a service that accepts.
  void liveThroughSessions() {
    keepRecords();
    session();
    transport_.setDefaultAnswer(Answer::json(Dictionary{
        {"Result", true},
        {"Data", Dictionary{{"user_no", 1001}, {"referralKey", 7}, {"install_datetime", "20240101000000"}}}}));
    session();
    keepRecords();
    session();
    restart();
    keepRecords();
    session();
    askToBeForgottenAndTakeItBack();
  }

  Seen seen() {
    Seen seen;
    for (const kit::Request& request : transport_.requests()) {
      const std::string name =
          request.method + " " + request.url.substr(std::string("https://service.example/").size());
      RequestKind& kind = seen[name];
      kind.headers.clear();
      for (const kit::HttpHeader& header : request.headers)
        kind.headers += "- header `" + header.name + ": " + header.value + "`\n";
      open(request, kind.fields);
    }
    return seen;
  }

 private:
  MorvikCoreLib& core() { return *parts_->core; }

  void start() {
    parts_ = std::make_unique<AssembledPorts>(surroundings());
    loop_.perform([this] { parts_->launch(); });
  }

  void restart() {
    loop_.kill();
    transport_.kill();
    start();
  }

  /// The kit stores something of everything that it can send.
  void keepRecords() {
    loop_.perform([this] {
      const auto& properties = parts_->properties;
      properties.setFendoImpressionInfos(kit::Array{Dictionary{{"campaignKey", 1},
                                                               {"spaceKey", "space"},
                                                               {"resourceKey", 2},
                                                               {"conversionKey", 3},
                                                               {"isFirstTime", true},
                                                               {"createdAt", loop_.now()}}});
      for (const char* name : {"look (free)", "buy (free)"})
        parts_->services.addActivityOfApp("shop (free)", name, "sku (free)", loop_.now());
      parts_->services.addActivityOfApp("shop (free)", "leave (free)", std::nullopt, loop_.now());
      core().setAge(30);
      core().setGender(MorvikCoreGenderFemale);
      core().setUserId("user (free)");
      core().makeCrashParameter({.reason = "fendo (free)", .call_stack_symbols = {"0 app (free)"}, .moment = {}});
    });
  }

  void openALink() { core().passOpenURL(kit::Url("app://(free)?ck=5&sn=2&cid=(free)&mrvk_eng=1&sub_referral=(free)")); }

  void session() {
    loop_.notifications().post(kit::Notification::kApplicationDidBecomeActive);
    loop_.advance(30);
    loop_.perform([this] { openALink(); });
    loop_.notifications().post(kit::Notification::kApplicationDidEnterBackground);
    loop_.advance(120);
  }

  void askToBeForgottenAndTakeItBack() {
    if (case_.is_forgotten)
      return;
    loop_.perform([this] { core().gdprForgetMe(true); });
    transport_.setDefaultAnswer(Answer::error("down"));
    loop_.perform([this] { core().gdprForgetMe(false); });
  }

  void open(const kit::Request& request, Fields& fields) {
    if (request.body.empty())
      return;
    if (request.body.front() == '{' || request.body.front() == '[') {
      collect(testing::json(request.body), "", fields);
      return;
    }
    for (const auto& [name, text] : testing::formFields(request.body))
      fields["form " + name].insert(name == "j" ? "sealed, of what follows" : kindOf(Value(text)));
    if (request.url.ends_with(services::kSetDemographicPath))
      collect(testing::openDemographics(parts_->sealing(), request, kTrackingKey), "", fields);
    else if (!request.url.ends_with(services::kGetScheduleVer2Path))
      collect(testing::openEnvelope(parts_->sealing(), request, keyOf(request)).payload, "", fields);
  }
  static std::string keyOf(const kit::Request& request) {
    return request.url.ends_with(services::kTrackingPath) ? kTrackingKey : std::string(kHashKey) + kHashKey;
  }

  Surroundings surroundings() {
    return {.clock = loop_.clock(),
            .calendar = calendar_,
            .main_queue = loop_.mainQueue(),
            .background_queue = loop_.backgroundQueue(),
            .background_tasks = loop_.backgroundTasks(),
            .notifications = loop_.notifications(),
            .store = store_,
            .list_lock = list_lock_,
            .transport = transport_,
            .log = log_,
            .idfa = case_.has_identifier ? std::optional<std::string>("an identifier") : std::nullopt,
            .puid = case_.has_hashed_puid ? std::optional<std::string>("a hash") : std::nullopt,
            .ad_client = case_.has_modules ? AdClient::withoutDetails() : clientWithDetails(),
            .device = knownDevice(),
            .modules = case_.has_modules ? allModules() : std::map<std::string, Module>()};
  }
  static DeviceDescription knownDevice() {
    DeviceDescription device;
    device.model = "a model";
    device.language = "ko";
    device.country = "KR";
    device.carrier = "a carrier";
    device.app_version_name = "1.2";
    device.app_version_code = "3";
    device.package_name = "com.example.app";
    return device;
  }
  static AdClient clientWithDetails() {
    AdClient client;
    client.requestAttributionDetails = [](const AdClient::AttributionDetails& answer) {
      answer(R"json({"Version3.1": {"detail (free)": "of the ad client (free)"}})json", std::nullopt);
    };
    client.lookupAdConversionDetails = [](const AdClient::ConversionDetails& answer) {
      const AdClient::Time time = std::chrono::system_clock::from_time_t(1'700'000'000);
      answer(time, time);
    };
    return client;
  }
  /// All but one have a version.
  static std::map<std::string, Module> allModules() {
    std::map<std::string, Module> modules;
    for (const char* name : {"KesmoOfferwallUpdateLog", "FendoUpdateLog", "KesmoDAUpdateLog", "MorvikCommerceUpdateLog",
                             "MorvikCouponUpdateLog", "MorvikBriselUpdateLog"})
      modules[name].getSDKVersion = [] { return "3.2.1"; };
    for (const char* name : {"QuintUpdateLog", "Fendo", "FendoLib", "QuintPush"})
      modules[name] = Module();
    return modules;
  }

  const DeviceCase case_;
  testing::RecordingLog log_;
  testing::MemoryStore store_;
  testing::VirtualLoop loop_;
  testing::ScriptedTransport transport_{loop_};
  testing::FixedOffsetCalendar calendar_;
  kit::ListLock list_lock_;
  std::unique_ptr<AssembledPorts> parts_;
};

/// All requests of such a device, with and without modules.
Seen requestsOf(DeviceCase device_case) {
  Seen seen;
  for (const bool has_modules : {false, true}) {
    device_case.has_modules = has_modules;
    Device attributed(device_case);
    attributed.makeEachRequest();
    add(seen, attributed.seen());
    Device living(device_case);
    living.liveThroughSessions();
    add(seen, living.seen());
  }
  return seen;
}

// --------------------------------------------------------------------------------------------------- the document

std::string fieldLine(const std::string& path, const std::set<std::string>& kinds) {
  std::string line = "- `" + path + "`:";
  for (const std::string& kind : kinds)
    line += (kind == *kinds.begin() ? " " : " or ") + kind;
  return line + "\n";
}

/// One paragraph for each kind of request, in the order of their names.
std::string textOf(const Seen& seen) {
  std::string text;
  for (const auto& [name, kind] : seen) {
    text += "\n`" + name + "`\n\n" + kind.headers;
    for (const auto& [path, kinds] : kind.fields)
      text += fieldLine(path, kinds);
  }
  return text;
}

/// What differs between `fields` and those of `usual`.
std::string differences(const Fields& fields, const Fields& usual) {
  std::string text;
  for (const auto& [path, kinds] : usual) {
    const auto found = fields.find(path);
    if (found == fields.end())
      text += "- `" + path + "`: not sent\n";
    else if (found->second != kinds)
      text += fieldLine(path, found->second);
  }
  for (const auto& [path, kinds] : fields) {
    if (usual.count(path) == 0)
      text += fieldLine(path, kinds);
  }
  return text;
}

/// The requests that differ from the usual ones, with the fields that differ.
std::string differences(const Seen& seen, const Seen& usual) {
  std::string text;
  Seen all = usual;
  add(all, seen);
  for (const auto& entry : all) {
    const auto mine = seen.find(entry.first);
    const auto other = usual.find(entry.first);
    if (mine == seen.end())
      text += "\n`" + entry.first + "`: not sent\n";
    else if (other == usual.end() || mine->second.headers != other->second.headers)
      text += textOf({*mine});
    else if (const std::string fields = differences(mine->second.fields, other->second.fields); !fields.empty())
      text += "\n`" + entry.first + "`\n\n" + fields;
  }
  return text;
}

std::string wantedBlock() {
  const Seen usual = requestsOf({});
  const std::string as_above = "\nAs above, but for:\n";
  return "\n### With the advertising identifier\n" + textOf(usual) +   //
         "\n### The user limits tracking\n" + as_above +               //
         differences(requestsOf({.has_identifier = false}), usual) +   //
         "\n### The device has no hashed identifier\n" + as_above +    //
         differences(requestsOf({.has_hashed_puid = false}), usual) +  //
         "\n### The user asked to be forgotten\n" + textOf(requestsOf({.is_forgotten = true})) + "\n";
}

TEST(Privacy, TheDocumentNamesEveryFieldThatLeaves) {
  test::expectDocumentBlock("docs/privacy.md", "fields", wantedBlock());
}

}  // namespace
}  // namespace morvik::journey
