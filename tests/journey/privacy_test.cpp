// What leaves the device: every request of the kit, made on the host's own siblings in each state of consent, opened,
// and compared field by field with docs/privacy.md.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "testing/fake_calendar.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/sealed_payload.h"
#include "testing/virtual_loop.h"
#include "tests/journey/assembled_kit.h"
#include "tests/support/paths.h"

namespace morvik::journey {
namespace {

using kit::Dictionary;
using kit::Value;

constexpr const char* kBegin = "<!-- fields: begin -->\n";
constexpr const char* kEnd = "<!-- fields: end -->\n";

enum class Consent { kIdentifier, kLimited, kForgotten };

/// What was seen under one path: kinds of value, an empty text being a kind of its own.
using Fields = std::map<std::string, std::set<std::string>>;

std::string kindOf(const Value& value) {
  if (value.isString())
    return value.string().empty() ? "empty text" : "text";
  if (value.isBoolean())
    return "boolean";
  return value.isNumber() ? "number" : "other";
}

void collect(const Value& value, const std::string& path, Fields& fields) {
  if (value.isDictionary()) {
    if (value.size() == 0)
      fields[path].insert("empty object");
    for (const kit::Entry& entry : value.dictionary())
      collect(entry.value, path + (path.empty() ? "" : ".") + std::string(entry.key.string()), fields);
  } else if (value.isArray()) {
    if (value.size() == 0)
      fields[path + "[]"].insert("none");
    for (const Value& element : value.array())
      collect(element, path + "[]", fields);
  } else {
    fields[path].insert(kindOf(value));
  }
}

class Device {
 public:
  explicit Device(Consent consent) : consent_(consent) {
    loop_.addCommit([this] { store_.commitTurn(); });
    transport_.setDefaultAnswer(testing::Answer::error("down"));
    parts_.launch();
    loop_.perform([this] { fillStore(); });
    if (consent == Consent::kForgotten) {
      loop_.perform([this] { parts_.core->gdprForgetMe(true); });
    }
  }

  /// Makes every request there is.
  void live() {
    MorvikCoreLib& core = *parts_.core;
    loop_.perform([&] { core.searchAds(); });
    loop_.perform([&] {
      core.setFB_DeepLinkData(Dictionary{});
      core.setReferralUrlForFacebook(kit::Url("app://open?ck=3&sub_referral=s"));
    });
    loop_.perform([&] {
      core.conversion(core.makeConversionParameter());
      core.iAdAppAttributionTracking(core.makeIAdAppAttributionTrackingParameter(loop_.now(), loop_.now()));
      core.pushTracking();
      core.passOpenURL(kit::Url("app://open?ck=5&sn=2&cid=click&mrvk_eng=1&sub_referral=s"));
      core.getPremiumPostbackInfoss();
      core.makeCrashParameter({.reason = "fendo", .call_stack_symbols = {"0 app"}, .moment = std::nullopt});
      core.sendCrashInfos();
      core.sendUserDemoInfos(core.makeDemoInfoParameter());
      core.getSchedule(Dictionary{{"k", "journey-app"}, {"language", "ko"}, {"checksum", "init"}});
    });
    loop_.perform([&] {
      if (consent_ != Consent::kForgotten)
        core.gdprForgetMe(true);
    });
  }

  /// One paragraph for each kind of request, in the order of their names.
  std::string report() {
    std::map<std::string, std::pair<std::string, Fields>> kinds;
    for (const kit::Request& request : transport_.requests()) {
      const std::string name =
          request.method + " " + request.url.substr(std::string("https://service.example/").size());
      auto& [headers, fields] = kinds[name];
      headers.clear();
      for (const kit::HttpHeader& header : request.headers)
        headers += "- header `" + header.name + ": " + header.value + "`\n";
      open(request, fields);
    }
    std::string text;
    for (const auto& [name, kind] : kinds) {
      text += "\n`" + name + "`\n\n" + kind.first;
      for (const auto& [path, values] : kind.second) {
        text += "- `" + path + "`:";
        for (const std::string& value : values)
          text += (value == *values.begin() ? " " : " or ") + value;
        text += "\n";
      }
    }
    return text;
  }

 private:
  void fillStore() {
    const auto& properties = parts_.properties;
    properties.setFendoUserInfo_fendoUserNo(1001);
    properties.setFendoUserInfo_referralKey(7);
    properties.setFendoUserInfo_install_datetime("20240101000000");
    properties.setFendoImpressionInfos(kit::Array{Dictionary{{"campaignKey", 1},
                                                             {"spaceKey", "space"},
                                                             {"resourceKey", 2},
                                                             {"conversionKey", 3},
                                                             {"isFirstTime", true},
                                                             {"createdAt", loop_.now()}}});
    for (const char* name : {"look", "buy"})
      parts_.services.addActivityOfApp("shop", name, "sku", loop_.now());
    parts_.core->setAge(30);
    parts_.core->setGender(MorvikCoreGenderFemale);
    parts_.core->setUserId("user");
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
      collect(testing::openDemographics(parts_.sealing(), request, kTrackingKey), "", fields);
    else if (!request.url.ends_with(services::kGetScheduleVer2Path))
      collect(testing::openEnvelope(parts_.sealing(), request, keyOf(request)).payload, "", fields);
  }
  static std::string keyOf(const kit::Request& request) {
    return request.url.ends_with(services::kTrackingPath) ? kTrackingKey : std::string(kHashKey) + kHashKey;
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
      answer(R"({"Version3.1": {"details of the ad client": "text"}})", std::nullopt);
    };
    return client;
  }

  const Consent consent_;
  testing::RecordingLog log_;
  testing::MemoryStore store_;
  testing::VirtualLoop loop_;
  testing::ScriptedTransport transport_{loop_};
  testing::FixedOffsetCalendar calendar_;
  AssembledKit parts_{
      {.clock = loop_.clock(),
       .calendar = calendar_,
       .main_queue = loop_.mainQueue(),
       .background_queue = loop_.backgroundQueue(),
       .background_tasks = loop_.backgroundTasks(),
       .notifications = loop_.notifications(),
       .store = store_,
       .transport = transport_,
       .log = log_,
       .idfa = consent_ == Consent::kLimited ? std::nullopt : std::optional<std::string>("an identifier"),
       .puid = "a hash",
       .ad_client = clientWithDetails(),
       .device = knownDevice()}};
};

std::string wantedBlock() {
  std::string text;
  for (const auto& [title, consent] : {std::pair{"With the advertising identifier", Consent::kIdentifier},
                                       std::pair{"The user limits tracking", Consent::kLimited},
                                       std::pair{"The user asked to be forgotten", Consent::kForgotten}}) {
    Device device(consent);
    device.live();
    text += std::string("\n### ") + title + "\n" + device.report();
  }
  return text + "\n";
}

TEST(Privacy, TheDocumentNamesEveryFieldThatLeaves) {
  std::ifstream file(test::sourceDir() + "/docs/privacy.md", std::ios::binary);
  const std::string document{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const size_t begin = document.find(kBegin);
  const size_t end = document.find(kEnd);
  ASSERT_NE(begin, std::string::npos);
  ASSERT_NE(end, std::string::npos);
  const size_t first = begin + std::string_view(kBegin).size();
  const std::string wanted = wantedBlock();
  EXPECT_TRUE(document.substr(first, end - first) == wanted)
      << "What leaves is not what docs/privacy.md says. If that is meant, put this between its two markers:\n"
      << kBegin << wanted << kEnd;
}

}  // namespace
}  // namespace morvik::journey
