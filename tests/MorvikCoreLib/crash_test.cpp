// Crash reports: made on the thread that dies, kept, taken in, sent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "services/converters.h"
#include "services/describe.h"
#include "tests/MorvikCoreLib/odd_values.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::Answer;
using ::testing::ElementsAre;
using testing::Fault;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::texts;
using testing::WorldOptions;

constexpr const char* kCrash = "v1/crash";
constexpr const char* kLostLine =
    "MRVK_QA-[MorvikCoreLib error] Exception from startSessinAfter fail to save initial idfa  : ";

kit::UncaughtException exceptionOf(std::optional<std::string> reason) {
  return {.reason = std::move(reason), .call_stack_symbols = {"0 app main", "1 app start"}, .moment = {}};
}

class Crash : public ::testing::Test {
 protected:
  explicit Crash(WorldOptions options = WorldOptions::attributed()) : world(std::move(options)) {
    world.transport.setDefaultAnswer(Answer::silence());
  }

  void crash(const std::optional<std::string>& reason) { world.core().makeCrashParameter(exceptionOf(reason)); }
  Array queue() { return world.userDefaults().MorvikCoreUserInfo_Crash().array(); }
  std::vector<std::string> reasons() {
    return texts(world.userDefaults().MorvikCoreUserInfo_Crash(), "exception_reason");
  }
  /// The only report.
  Value report() {
    EXPECT_EQ(queue().size(), 1U);
    return queue()[0];
  }

  TestWorld world;
};

// -------------------------------------------------------------------------------------------------------- the report

TEST_F(Crash, ReportHoldsWhatTheTableSays) {
  world.userDefaults().setFendoUserInfo_install_datetime("20240201030405");
  world.becomeActive();
  world.loop.advance(30.75);
  crash("Fendo failed");
  const Value expected = Dictionary{
      {"idfa", "00000000-0000-4000-8000-0000000000AD"},
      {"os_type", "ios"},
      {"os_version", "i_15.0"},
      {"appkey", "test-app"},
      {"app_version_name", "4.5.6"},
      {"app_version_code", "789"},
      {"install_datetime", "20240201030405"},
      {"package_name", "com.example.test"},
      {"common_sdk_version", "1.2.3"},
      {"kesmo_sdk_version", "not installed"},
      {"fendo_sdk_version", "not installed"},
      {"kesmo_display_ads", "not installed"},
      {"commerce_sdk_version", "not installed"},
      {"coupon_sdk_version", "not installed"},
      {"brisel_sdk_version", "not installed"},
      {"quint_sdk_version", "not installed"},
      {"local_kst_time", "2024-03-01 09:00:30"},
      {"exception_reason", "Fendo failed"},
      {"exception_log_trace", "0 app main<br>1 app start<br>"},
      {"device_information", Dictionary{{"app_in_focus", true},
                                        {"root_device", false},
                                        {"device_model", "test-model"},
                                        {"free_device_storage", 123'456'789},
                                        {"free_memory", "812.4 MB"}}},
  };
  EXPECT_EQ(report(), expected);
  EXPECT_EQ(testing::keys(report()), testing::keys(expected));
  EXPECT_EQ(testing::keys(report()["device_information"]), testing::keys(expected["device_information"]));
}

TEST_F(Crash, ReportHasABlankForWhateverIsAbsent) {
  world.util.setIDFA(std::nullopt);
  world.util.setPlatformString(std::nullopt);
  world.util.setFreeDiskSpace({});
  for (const char* key : {"CFBundleShortVersionString", "CFBundleVersion", "CFBundleIdentifier"})
    world.bundle.set(key, std::nullopt);
  crash(std::nullopt);
  for (const char* key :
       {"idfa", "app_version_name", "app_version_code", "install_datetime", "package_name", "exception_reason"})
    EXPECT_EQ(report()[key], Value("")) << key;
  EXPECT_EQ(report()["device_information"]["device_model"], Value(""));
  EXPECT_EQ(report()["device_information"]["free_device_storage"], Value(""));
}

TEST_F(Crash, ReportTakesTheFreeStorageAsItComes) {
  for (const Value& as_it_comes : {Value("12.3 GB"), Value(1.5), Value(-1)}) {
    world.userDefaults().setMorvikCoreUserInfo_Crash({});
    world.util.setFreeDiskSpace(as_it_comes);
    crash(std::nullopt);
    EXPECT_EQ(report()["device_information"]["free_device_storage"], as_it_comes);
  }
}

TEST_F(Crash, ReportTellsADeviceThatWasBrokenInto) {
  world.device.set({.openable_urls = {"cydia://package/"}});
  crash(std::nullopt);
  EXPECT_EQ(report()["device_information"]["root_device"], Value(true));
}

TEST_F(Crash, ReportTellsWhetherTheAppIsInFocus) {
  crash(std::nullopt);
  world.becomeActive();
  crash(std::nullopt);
  world.enterBackground();
  crash(std::nullopt);
  std::vector<bool> focus;
  for (const Value& each : queue())
    focus.push_back(each["device_information"]["app_in_focus"].boolean());
  EXPECT_THAT(focus, ElementsAre(false, true, false));
}

TEST_F(Crash, ReportOfAnEarlierProcessTellsOfItsOwnMoment) {
  world.becomeActive();
  kit::UncaughtException exception = exceptionOf("mrvk died");
  exception.moment = kit::CrashMoment{.date = testing::at(-86'400), .app_in_focus = false};
  world.core().makeCrashParameter(exception);
  EXPECT_EQ(report()["local_kst_time"], Value("2024-02-29 09:00:00"));
  EXPECT_EQ(report()["device_information"]["app_in_focus"], Value(false));
}

TEST_F(Crash, ReportOfAnEarlierProcessTellsOfTheDeviceAndTheAppAsItKnewThem) {
  world.modules.add("FendoUpdateLog", "3.2");
  kit::UncaughtException exception = exceptionOf("mrvk died");
  exception.moment =
      kit::CrashMoment{.date = testing::at(-86'400), .app_in_focus = true, .facts = world.core().crashFacts()};
  world.core().makeCrashParameter(exception);
  const Value expected = report();
  EXPECT_EQ(expected["fendo_sdk_version"], Value("3.2"));
  EXPECT_EQ(expected["local_kst_time"], Value("2024-02-29 09:00:00"));
  EXPECT_EQ(expected["exception_reason"], Value("mrvk died"));
  EXPECT_EQ(expected["device_information"]["app_in_focus"], Value(true));

  // An update, a new system, a device in another state: nothing of it concerns the crash.
  world.userDefaults().setMorvikCoreUserInfo_Crash({});
  world.modules.add("FendoUpdateLog", "4.0");
  world.modules.add("QuintUpdateLog", "1.0");
  world.device.set({.system_version = "99", .openable_urls = {"cydia://package/"}});
  for (const char* key : {"CFBundleShortVersionString", "CFBundleVersion", "CFBundleIdentifier"})
    world.bundle.set(key, "other");
  world.util.setIDFA("other");
  world.util.setPlatformString("other");
  world.util.setFreeDiskSpace(1);
  EXPECT_TRUE(world.core().takeCrashOfEarlierProcess(exception));
  EXPECT_EQ(report(), expected);
  EXPECT_EQ(testing::keys(report()), testing::keys(expected));
}

TEST_F(Crash, ReportOfAnEmptyCallStackHasABlankTrace) {
  world.core().makeCrashParameter({.reason = "kesmo", .call_stack_symbols = {}, .moment = {}});
  EXPECT_EQ(report()["exception_log_trace"], Value(""));
}

struct ModuleCase {
  const char* key;
  const char* class_name;
};

class CrashModules : public ::testing::TestWithParam<ModuleCase> {
 protected:
  Value versionIn(TestWorld& world) {
    world.userDefaults().setMorvikCoreUserInfo_Crash({});
    world.core().makeCrashParameter(exceptionOf(std::nullopt));
    return world.userDefaults().MorvikCoreUserInfo_Crash().array()[0][GetParam().key];
  }
};

TEST_P(CrashModules, AreNamedWithTheirVersionWhenTheyArePresent) {
  TestWorld world;
  EXPECT_EQ(versionIn(world), Value("not installed"));
  world.modules.add(GetParam().class_name, "7.8.9");
  EXPECT_EQ(versionIn(world), Value("7.8.9"));
  world.modules.add(GetParam().class_name, std::nullopt);
  EXPECT_EQ(versionIn(world), Value("")) << "the class answers null";
  world.modules.add(GetParam().class_name).getSDKVersion = nullptr;
  EXPECT_EQ(versionIn(world), Value("")) << "the class does not respond";
}

INSTANTIATE_TEST_SUITE_P(Table, CrashModules,
                         ::testing::Values(ModuleCase{"kesmo_sdk_version", "KesmoOfferwallUpdateLog"},
                                           ModuleCase{"fendo_sdk_version", "FendoUpdateLog"},
                                           ModuleCase{"kesmo_display_ads", "KesmoDAUpdateLog"},
                                           ModuleCase{"commerce_sdk_version", "MorvikCommerceUpdateLog"},
                                           ModuleCase{"coupon_sdk_version", "MorvikCouponUpdateLog"},
                                           ModuleCase{"brisel_sdk_version", "MorvikBriselUpdateLog"},
                                           ModuleCase{"quint_sdk_version", "QuintUpdateLog"}),
                         [](const auto& row) { return row.param.key; });

// ---------------------------------------------------------------------------------------------------- which are kept

TEST_F(Crash, IsKeptWhenItsReasonNamesAPartOfTheKitInAnyLetterCase) {
  const std::vector<std::string> relevant = {"Fendo", "FENDO", "in fEnDo's way", "mrvk",  "xMRVKx",
                                             "Kesmo", "kEsMo", "quint",          "Quint!"};
  for (const std::string& reason : relevant)
    crash(reason);
  EXPECT_EQ(reasons(), relevant);
}

TEST_F(Crash, IsNeitherKeptNorLoggedWhenItsReasonNamesNone) {
  world.log.clear();
  world.store.clearJournal();
  for (const char* reason : {"", "index 5 beyond bounds", "fend o", "morvik", "kesm", "mrv k", "Quin"})
    crash(reason);
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_TRUE(world.report_shelf.reports().empty());
}

TEST_F(Crash, WithoutAReasonIsKept) {
  crash(std::nullopt);
  EXPECT_THAT(reasons(), ElementsAre(""));
}

TEST_F(Crash, TwiceInARowLeavesTwoReportsOldestFirst) {
  crash("fendo one");
  crash("fendo two");
  EXPECT_THAT(reasons(), ElementsAre("fendo one", "fendo two"));
}

TEST_F(Crash, IsStoredAndFlushedBeforeTheProcessEnds) {
  world.store.clearJournal();
  crash("fendo");
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("MorvikCoreUserInfo_Crash", "synchronize"));
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("fendo"));
}

TEST_F(Crash, IsKeptAlsoOfAUserWhoAskedToBeForgotten) {
  world.services().setIsGDPRForgetMe(true);
  crash("fendo");
  EXPECT_THAT(reasons(), ElementsAre("fendo"));
}

// ------------------------------------------------------------------------------------------- a store that is in use

TEST_F(Crash, GoesToTheShelfWhileTheStoreIsInUse) {
  world.userDefaults().setFendoUserInfo_install_datetime("20240201030405");
  world.userDefaults().synchronize();
  world.store.setInUse(true);
  crash("fendo one");
  crash("fendo two");
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_EQ(texts(Value(world.report_shelf.reports()), "exception_reason"),
            (std::vector<std::string>{"fendo one", "fendo two"}));
  EXPECT_EQ(world.report_shelf.reports()[0]["install_datetime"], Value(""));
  world.store.setInUse(false);
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("fendo one", "fendo two"));
  EXPECT_EQ(queue()[0]["install_datetime"], Value("20240201030405")) << "what could not be read is filled in";
  EXPECT_TRUE(world.report_shelf.reports().empty());
}

TEST_F(Crash, GoesToTheShelfWhenTheStoreKeepsNothing) {
  world.store.setKeepsNothing(true);
  crash("fendo");
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_EQ(world.report_shelf.reports().size(), 1U);
}

TEST_F(Crash, OfAThreadThatHoldsTheListLockDoesNotWaitForItself) {
  world.userDefaults().inOneStep([&] { crash("fendo"); });
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_EQ(world.report_shelf.reports().size(), 1U);
}

TEST_F(Crash, OfAThreadWhoseLockAnotherHoldsDoesNotWaitForIt) {
  world.userDefaults().inOneStep([&] { std::thread([&] { crash("fendo"); }).join(); });
  EXPECT_EQ(world.report_shelf.reports().size(), 1U);
}

TEST_F(Crash, UsesNoOperationOfTheStoreOrTheLogThatWaits) {
  for (const char* operation : {"get", "set", "synchronize"})
    world.faulty.key_value_store.faults.throwAlways(operation, Fault::number(1));
  world.faulty.log_sink.faults.throwAlways("line", Fault::number(1));
  world.log.clear();
  crash("fendo one");
  world.store.setInUse(true);
  crash("fendo two");
  world.report_shelf.refuse("no room");
  crash("fendo three");
  world.faulty.util.faults.throwAlways("IDFA", Fault::number(1));
  crash("fendo four");
  world.faulty.key_value_store.faults.clear();
  EXPECT_THAT(world.faulty.key_value_store.faults.thrown(), IsEmpty());
  EXPECT_THAT(world.faulty.log_sink.faults.thrown(), IsEmpty());
  EXPECT_THAT(world.log.messages(), ElementsAre(std::string(kLostLine) + "no room]",
                                                "! MRVK_QA-MorvikCoreLib makeCrashParameter exception : int\n"));
}

TEST_F(Crash, OnManyThreadsAmongTheStoresOtherUsersLosesNoReport) {
  constexpr size_t kThreads = 3;
  constexpr size_t kEach = 40;
  std::atomic<bool> enough = false;
  std::thread user([&] {
    while (!enough) {
      const auto properties = world.userDefaults();
      properties.inOneStep([&] {
        kit::MutableArray list(properties.fendoActivityInfos());
        list.append(1);
        properties.setFendoActivityInfos(Value(std::move(list)));
      });
      properties.synchronize();
    }
  });
  std::vector<std::thread> dying;
  for (size_t i = 0; i < kThreads; ++i) {
    dying.emplace_back([&, i] {
      for (size_t j = 0; j < kEach; ++j)
        crash("fendo " + std::to_string(i * kEach + j));
    });
  }
  for (std::thread& thread : dying)
    thread.join();
  enough = true;
  user.join();
  EXPECT_EQ(queue().size() + world.report_shelf.reports().size(), kThreads * kEach);
  world.restart();
  const std::vector<std::string> all = reasons();
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), kThreads * kEach);
  EXPECT_EQ(all.size(), kThreads * kEach);
}

// ------------------------------------------------------------------------------------- a crash of an earlier process

class EarlierCrash : public Crash {
 protected:
  bool take(const char* reason) {
    kit::UncaughtException crash = exceptionOf(reason);
    crash.moment = kit::CrashMoment{.date = testing::at(-60), .app_in_focus = true};
    return world.core().takeCrashOfEarlierProcess(crash);
  }
};

TEST_F(EarlierCrash, WaitsForAStoreThatIsInUse) {
  world.userDefaults().setFendoUserInfo_install_datetime("20240201030405");
  world.store.setInUse(true);
  EXPECT_TRUE(take("mrvk SIGSEGV"));
  EXPECT_THAT(reasons(), ElementsAre("mrvk SIGSEGV"));
  EXPECT_EQ(report()["local_kst_time"], Value("2024-03-01 08:59:00"));
  EXPECT_EQ(report()["install_datetime"], Value("20240201030405"));
  EXPECT_TRUE(world.report_shelf.reports().empty());
  world.kill();
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("mrvk SIGSEGV"));
}

TEST_F(EarlierCrash, IsDoneWithWhenItIsNoneOfTheKitsBusiness) {
  world.log.clear();
  world.store.clearJournal();
  EXPECT_TRUE(take("SIGSEGV"));
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(EarlierCrash, GoesToTheShelfWhenTheStoreKeepsNothing) {
  world.store.setKeepsNothing(true);
  EXPECT_TRUE(take("mrvk SIGSEGV"));
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_EQ(texts(Value(world.report_shelf.reports()), "exception_reason"), std::vector<std::string>{"mrvk SIGSEGV"});
}

TEST_F(EarlierCrash, IsToBeToldAgainWhenNeitherTakesIt) {
  world.store.setKeepsNothing(true);
  world.report_shelf.refuse("no room");
  EXPECT_FALSE(take("mrvk SIGSEGV"));
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_TRUE(world.report_shelf.reports().empty());
}

TEST_F(EarlierCrash, IsToBeToldAgainWhenKeepingItThrows) {
  for (const Fault& fault : {Fault::exception("Name", "Reason"), Fault::number(5)}) {
    world.faulty.key_value_store.faults.throwAlways("synchronize", fault);
    EXPECT_FALSE(take("mrvk SIGSEGV"));
    world.faulty.key_value_store.faults.clear();
    world.userDefaults().setMorvikCoreUserInfo_Crash({});
  }
  EXPECT_TRUE(world.log.has(std::string(kLostLine) + "Reason]"));
  EXPECT_TRUE(world.log.has(std::string(kLostLine) + "int]"));
}

TEST_F(EarlierCrash, IsDoneWithWhenItsReportCannotBeMade) {
  world.faulty.util.faults.throwAlways("IDFA", Fault::number(1));
  EXPECT_TRUE(take("mrvk SIGSEGV"));
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_TRUE(world.log.has("! MRVK_QA-MorvikCoreLib makeCrashParameter exception : int\n"));
}

Value shelved(const char* reason) {
  return Dictionary{{"exception_reason", reason}, {"install_datetime", "before"}};
}

TEST_F(Crash, OnTheShelfGoesBehindTheStoredOnes) {
  crash("fendo stored");
  world.report_shelf.append(shelved("fendo shelved"));
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("fendo stored", "fendo shelved"));
  EXPECT_EQ(queue()[1]["install_datetime"], Value("before"));
}

TEST_F(Crash, OnTheShelfIsTakenInOnceAlsoWhenAStartDiedBeforeItWasCleared) {
  world.report_shelf.append(shelved("fendo"));
  world.report_shelf.append(shelved("fendo"));
  world.kill();
  world.faulty.report_shelf.faults.throwAt("clear", 1, Fault::number(1));
  EXPECT_THROW(world.restart(), int);
  EXPECT_EQ(world.report_shelf.reports().size(), 2U);
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("fendo", "fendo")) << "two crashes, each reported once";
  EXPECT_TRUE(world.report_shelf.reports().empty());
}

TEST_F(Crash, OnTheShelfStaysThereUntilTheStoreKeepsIt) {
  world.report_shelf.append(shelved("fendo"));
  world.store.setKeepsNothing(true);
  world.restart();
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_EQ(world.report_shelf.reports().size(), 1U);
  world.store.setKeepsNothing(false);
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("fendo"));
}

TEST_F(Crash, OnTheShelfIsTakenInAlsoForAUserWhoAskedToBeForgotten) {
  world.report_shelf.append(shelved("fendo"));
  world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMe(true);
  world.userDefaults().synchronize();
  world.restart();
  EXPECT_THAT(reasons(), ElementsAre("fendo"));
  world.becomeActive();
  EXPECT_THAT(world.requests(), IsEmpty());
}

TEST_F(Crash, ClearsAShelfThatHoldsNothingItCanRead) {
  const size_t before = world.faulty.report_shelf.faults.calls("clear");
  world.store.clearJournal();
  world.restart();
  EXPECT_EQ(world.faulty.report_shelf.faults.calls("clear"), before + 1);
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoUserInfo_isApplicationPortrait", "synchronize"));
}

// -------------------------------------------------------------------------------------------------------- the upload

class CrashUpload : public Crash {
 protected:
  void keep(const Value& reports) { world.userDefaults().setMorvikCoreUserInfo_Crash(reports); }
  void send() {
    world.loop.perform([&] { world.core().sendCrashInfos(); });
  }
  /// A report whose description has this many bytes.
  static Value reportOfBytes(size_t bytes, const std::string& name) {
    const size_t frame = services::describe(Dictionary{{"name", name}, {"text", ""}}).size();
    return Dictionary{{"name", name}, {"text", std::string(bytes - frame, 'x')}};
  }
  std::vector<std::string> sentNames(size_t request) {
    return texts(testing::json(world.requests(kCrash).at(request).body), "name");
  }
  std::vector<std::string> keptNames() { return texts(world.userDefaults().MorvikCoreUserInfo_Crash(), "name"); }
};

const Value kAccepted = Dictionary{{"code", 0}};

TEST_F(CrashUpload, OfAnEmptyQueueSendsAnEmptyArrayAndStoresOne) {
  keep(Array{});
  world.transport.on(kCrash).then(Answer::json(kAccepted));
  send();
  ASSERT_EQ(world.requests(kCrash).size(), 1U);
  EXPECT_EQ(world.requests(kCrash)[0].body, "[]");
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{}));
}

TEST_F(CrashUpload, OfAQueueNeverStoredLeavesItAbsent) {
  world.transport.on(kCrash).then(Answer::json(kAccepted));
  send();
  ASSERT_EQ(world.requests(kCrash).size(), 1U);
  EXPECT_EQ(world.requests(kCrash)[0].body, "");
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
}

TEST_F(CrashUpload, OfThreeSmallReportsIsOneRequestAndEmptiesTheQueue) {
  crash("fendo one");
  crash("fendo two");
  crash("fendo three");
  const std::string all = services::describe(world.userDefaults().MorvikCoreUserInfo_Crash());
  world.transport.on(kCrash).always(Answer::json(kAccepted));
  world.store.clearJournal();
  send();
  ASSERT_EQ(world.requests(kCrash).size(), 1U);
  EXPECT_EQ(world.requests(kCrash)[0].body, all);
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{}));
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("MorvikCoreUserInfo_Crash", "synchronize"));
}

TEST_F(CrashUpload, PastTheBudgetSendsAllAndDropsOnlyWhatTheBudgetCounts) {
  keep(Array{reportOfBytes(60'000, "a"), reportOfBytes(60'000, "b"), reportOfBytes(60'000, "c"),
             reportOfBytes(10'000, "d")});
  world.log.clear();
  world.transport.on(kCrash).then(Answer::json(kAccepted)).then(Answer::json(kAccepted).after(1));
  send();
  ASSERT_EQ(world.requests(kCrash).size(), 2U);
  EXPECT_THAT(sentNames(0), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(keptNames(), ElementsAre("c", "d"));
  EXPECT_THAT(sentNames(1), ElementsAre("c", "d"));
  EXPECT_EQ(world.log.count("MRVK_QA-overflow of limited stringByte, so the remanent crash infos not gonna send to "
                            "server in this time"),
            1U);
  world.loop.advance(2);
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{}));
  EXPECT_EQ(world.requests(kCrash).size(), 2U);
}

TEST_F(CrashUpload, CountsUpToTheReportThatBrings100001Bytes) {
  for (const size_t first : {size_t{99'900}, size_t{99'901}}) {
    world.transport.clearRequests();
    keep(Array{reportOfBytes(first, "a"), reportOfBytes(100, "b"), reportOfBytes(100, "c")});
    world.transport.on(kCrash).clear().then(Answer::json(kAccepted));
    send();
    // 100,000 bytes leave room for one report more, 100,001 do not.
    if (first == 99'900)
      EXPECT_THAT(keptNames(), IsEmpty());
    else
      EXPECT_THAT(keptNames(), ElementsAre("c"));
  }
}

TEST_F(CrashUpload, DropsASingleReportBeyondTheBudgetLikeAnyOther) {
  keep(Array{reportOfBytes(150'000, "large")});
  world.transport.on(kCrash).always(Answer::json(kAccepted));
  send();
  EXPECT_EQ(world.requests(kCrash).size(), 1U);
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{}));
}

TEST_F(CrashUpload, DropsEqualReportsTogetherWhereverTheyStand) {
  keep(Array{reportOfBytes(100'001, "a"), reportOfBytes(50, "b"), reportOfBytes(100'001, "a")});
  world.transport.on(kCrash).then(Answer::json(kAccepted));
  send();
  EXPECT_THAT(keptNames(), ElementsAre("b"));
}

TEST_F(CrashUpload, OfAHundredReportsEndsAndEachRoundDropsOne) {
  kit::MutableArray reports;
  for (int i = 0; i < 100; ++i)
    reports.append(reportOfBytes(10'000, std::to_string(i)));
  keep(Value(std::move(reports)));
  world.transport.on(kCrash).always(Answer::json(kAccepted));
  send();
  // Eleven reports of 10,000 bytes cross the budget.
  EXPECT_EQ(world.requests(kCrash).size(), 10U);
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{}));
}

TEST_F(CrashUpload, TakesAMissingCodeForAcceptanceAndKeepsTheQueueForAnother) {
  const Value reports = Array{reportOfBytes(50, "a")};
  for (const Value& accepted :
       {Value(Dictionary{}), Value(Dictionary{{"code", Value::null()}}), Value(Dictionary{{"code", "0"}}),
        Value(Dictionary{{"code", "fine"}}), Value(Dictionary{{"code", Array{1}}}), Value(Dictionary{{"code", 0.9}})}) {
    keep(reports);
    world.transport.on(kCrash).then(Answer::json(accepted));
    send();
    EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{})) << services::describe(accepted);
  }
  for (const Value& code : {Value(1), Value(-1), Value("1"), Value(true), Value(1e300)}) {
    keep(reports);
    world.transport.on(kCrash).then(Answer::json(Dictionary{{"code", code}}));
    send();
    EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), reports) << services::describe(code);
  }
}

TEST_F(CrashUpload, TakesAnyAnswerWithoutAnException) {
  for (const Value& odd : testing::oddValues()) {
    keep(Array{reportOfBytes(50, "a")});
    world.transport.on(kCrash).then(Answer::json(Dictionary{{"code", odd}, {"Data", odd}}));
    send();
    EXPECT_EQ(keptNames().empty(), services::checkIntegerNilToZero(odd) == 0) << services::describe(odd);
  }
  keep(Array{reportOfBytes(50, "a")});
  for (const char* body : {"", "null", "[]", "5", "{", "<html>"}) {
    world.transport.on(kCrash).then(Answer::body(200, body));
    send();
    EXPECT_THAT(keptNames(), ElementsAre("a")) << body;
  }
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(CrashUpload, OverwritesACrashThatCameWhileItWasInFlight) {
  keep(Array{reportOfBytes(50, "a")});
  world.transport.on(kCrash).then(Answer::json(kAccepted).after(1));
  send();
  crash("fendo meanwhile");
  EXPECT_EQ(queue().size(), 2U);
  world.loop.advance(2);
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_Crash(), Value(Array{}));
}

TEST_F(CrashUpload, LeavesTheReportsOfAStoreThatRecoveredWhileItWasInFlightAndSendsThemNext) {
  const Value large = reportOfBytes(150'000, "delivered");
  const Value beyond = reportOfBytes(50, "beyond the budget");
  keep(Array{large, beyond});
  world.transport.on(kCrash).then(Answer::json(kAccepted).after(1)).then(Answer::silence());
  send();
  keep(Array{reportOfBytes(50, "of the file"), large, beyond});
  world.core().storeRecovered();
  world.loop.advance(2);
  EXPECT_THAT(keptNames(), ElementsAre("of the file", "beyond the budget"));
  ASSERT_EQ(world.requests(kCrash).size(), 2U);
  EXPECT_THAT(sentNames(1), ElementsAre("of the file", "beyond the budget"));
}

TEST_F(CrashUpload, SendsAndLogsNothingWithoutANetworkOrUnderForgetMe) {
  keep(Array{reportOfBytes(50, "a")});
  world.log.clear();
  world.util.setNetworkStatus("unknown");
  send();
  world.util.setNetworkStatus("wifi");
  world.services().setIsGDPRForgetMe(true);
  send();
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_THAT(keptNames(), ElementsAre("a"));
}

TEST_F(CrashUpload, KeepsTheQueueAfterAFailureAndTriesAgainAtTheNextSessionStart) {
  keep(Array{reportOfBytes(50, "a")});
  world.transport.on(kCrash).then(Answer::json(500, kAccepted)).then(Answer::json(kAccepted));
  world.log.clear();
  send();
  world.loop.advance(100);
  EXPECT_THAT(
      world.log.messagesOf("-[MorvikCoreLib sendCrashInfos]_block_invoke"),
      ElementsAre("MRVK_QA-Recieved an HTTP 500", "MRVK_QA-The error was: The server answered with status 500."));
  EXPECT_EQ(world.requests(kCrash).size(), 1U);
  EXPECT_THAT(keptNames(), ElementsAre("a"));
  world.becomeActive();
  EXPECT_EQ(world.requests(kCrash).size(), 2U);
  EXPECT_THAT(keptNames(), IsEmpty());
}

TEST_F(CrashUpload, IsNotMadeBySessionStartsWithoutReports) {
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(100);
  keep(Array{});
  world.becomeActive();
  EXPECT_THAT(world.requests(kCrash), IsEmpty());
}

TEST_F(CrashUpload, FollowsTheAdvertisingIdentifierAndComesBeforeTheCommerceEvents) {
  keep(Array{reportOfBytes(50, "a")});
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.modules.add("Fendo");
  world.faulty.util.faults.throwAlways("getNetworkStatus", Fault::number(1));
  world.becomeActive();
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_IDFA().has_value());
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  EXPECT_EQ(world.log.countContaining("Exception from startSession!"), 1U);
}

// ----------------------------------------------------------------------------------------------------------- threads

TEST(ThreadDescription, IsWhatStandsBetweenTheFirstBraces) {
  testing::FakeThreads threads;
  const auto prettyOf = [&](const std::string& description) {
    threads.setDescription(description);
    return MorvikCoreLib::getPrettyCurrentThreadDescription(threads);
  };
  EXPECT_EQ(prettyOf("<NSThread: 0x600000264c00>{number = 1, name = main}"), "number = 1, name = main");
  EXPECT_EQ(prettyOf("a thread without braces"), "a thread without braces");
  EXPECT_EQ(prettyOf(""), "");
  EXPECT_EQ(prettyOf("a{b{c}d}e"), "b");
  EXPECT_EQ(prettyOf("a}b{c"), "c");
  EXPECT_EQ(prettyOf("a{"), "");
  EXPECT_EQ(prettyOf("{}"), "");
}

}  // namespace
}  // namespace morvik
