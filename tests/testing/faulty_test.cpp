#include "testing/faulty.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "testing/fake_ad_client.h"
#include "testing/fake_calendar.h"
#include "testing/fake_crypto.h"
#include "testing/fake_device.h"
#include "testing/fake_facade.h"
#include "testing/fake_modules.h"
#include "testing/fake_services_lib.h"
#include "testing/fake_siblings.h"
#include "testing/fake_util.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/virtual_loop.h"

namespace morvik::test {
namespace {

using testing::Fault;
using testing::Faulty;
using Texts = std::vector<std::string>;

class FaultyStore : public ::testing::Test {
 protected:
  testing::MemoryStore store;
  Faulty<kit::KeyValueStore> faulty{store};
};

TEST_F(FaultyStore, PassesEveryCallOnWhenNothingIsPlanned) {
  faulty.set("a", 1);
  faulty.synchronize();
  EXPECT_EQ(faulty.get("a"), kit::Value(1));
  EXPECT_EQ(store.journalTexts(), (Texts{"a", "synchronize"}));
  EXPECT_EQ(faulty.faults.calls("set"), 1u);
  EXPECT_EQ(faulty.faults.planned(), Texts{});
  EXPECT_EQ(faulty.faults.thrown(), Texts{});
}

TEST_F(FaultyStore, ThrowsAtTheNthCallOnceAndDoesNotReachThePort) {
  faulty.set("before", 0);
  faulty.faults.throwAt("set", 2, Fault::runtimeError("disk on fire"));
  faulty.set("a", 1);
  EXPECT_THROW(faulty.set("b", 2), std::runtime_error);
  faulty.set("c", 3);
  EXPECT_EQ(store.journalTexts(), (Texts{"before", "a", "c"}));
  EXPECT_EQ(faulty.faults.calls("set"), 4u);
  EXPECT_EQ(faulty.faults.thrown(), Texts{"KeyValueStore.set, call 3: std::runtime_error disk on fire"});
}

TEST_F(FaultyStore, ThrowsAtEveryCallUntilItIsCleared) {
  faulty.faults.throwAlways("get", Fault::number(7));
  EXPECT_THROW(faulty.get("a"), int);
  EXPECT_THROW(faulty.get("a"), int);
  faulty.set("a", 1);
  faulty.faults.clear();
  EXPECT_EQ(faulty.get("a"), kit::Value(1));
}

TEST_F(FaultyStore, ListsExactlyWhatItInjects) {
  faulty.faults.throwAt("set", 3, Fault::text("third"));
  faulty.faults.throwAt("set", 1, Fault::exception("NSRangeException", "beyond bounds"));
  faulty.faults.throwAlways("synchronize", Fault::number(-1));
  EXPECT_EQ(faulty.faults.planned(),
            (Texts{"KeyValueStore.set, call 1: kit::Exception NSRangeException: beyond bounds",
                   "KeyValueStore.set, call 3: std::string third", "KeyValueStore.synchronize, every call: int -1"}));
  EXPECT_THROW(faulty.set("a", 1), kit::Exception);
  EXPECT_EQ(faulty.faults.planned(),
            (Texts{"KeyValueStore.set, call 3: std::string third", "KeyValueStore.synchronize, every call: int -1"}));
}

TEST_F(FaultyStore, RefusesAnUnknownOperationAndSaysWhichThereAre) {
  EXPECT_THROW(faulty.faults.throwAt("set", 0, Fault::number(1)), std::invalid_argument);
  try {
    faulty.faults.throwAlways("write", Fault::number(1));
    FAIL() << "an unknown operation was accepted";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(),
                 "KeyValueStore has no operation \"write\"; it has: get, set, append, replace, synchronize, "
                 "tryGet, trySetAndSynchronize");
  }
}

TEST(Fault, ThrowsEachKindOfObjectAsItIs) {
  try {
    Fault::exception("name", "reason", "info").raise();
  } catch (const kit::Exception& exception) {
    EXPECT_EQ(exception.name, "name");
    EXPECT_EQ(exception.reason, "reason");
    EXPECT_EQ(exception.info, kit::Value("info"));
  }
  EXPECT_THROW(Fault::exception("n", "r").raise(), kit::Exception);
  try {
    Fault::runtimeError("message").raise();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "message");
  }
  try {
    Fault::number(42).raise();
  } catch (int number) {
    EXPECT_EQ(number, 42);
  }
  try {
    Fault::text("text").raise();
  } catch (const std::string& text) {
    EXPECT_EQ(text, "text");
  }
}

/// The ports behind the wrappers.
struct Ports {
  testing::VirtualLoop loop;
  testing::MemoryStore store;
  kit::ListLock lock;
  testing::ScriptedTransport transport{loop};
  testing::PlainJsonCodec json;
  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  testing::FakeDevice device;
  testing::FakeAdClient ad_client{loop.mainQueue()};
  testing::RecordingLog log;
  testing::FixedOffsetCalendar calendar;
  testing::FakeUtil util;
  testing::FakePuid puid;
  testing::FakeBundle bundle;
  testing::FakeThreads threads;
  testing::MemoryShelf shelf;
  testing::FakeFacade facade;
  testing::FakeUpdateLog update_log;
  testing::FakeConfig config{"key"};
  testing::FakeServicesLib services{services::MorvikGVUserDefaults(store, lock),
                                    services::SealingTools{cipher, compressor, random}};
};

/// Calls every operation of a port once: each must throw its planned fault and count the call under its name.
class EveryOperation {
 public:
  explicit EveryOperation(testing::Faults& faults) : faults_(faults) {
    faults_.throwAlwaysEverywhere(Fault::number(7));
  }
  ~EveryOperation() { EXPECT_EQ(tried_, faults_.operations()) << "operations() and the operations tried differ"; }
  template <class Call>
  EveryOperation& fails(const std::string& operation, Call call) {
    tried_.push_back(operation);
    EXPECT_THROW(call(), int) << operation;
    EXPECT_EQ(faults_.calls(operation), 1u) << operation;
    return *this;
  }

 private:
  testing::Faults& faults_;
  Texts tried_;
};

TEST(Faulty, FailsInEveryOperationOfTime) {
  Ports ports;
  Faulty<kit::Clock> clock(ports.loop.clock());
  EveryOperation(clock.faults).fails("now", [&] { clock.now(); });
  Faulty<kit::Calendar> calendar(ports.calendar);
  EveryOperation(calendar.faults).fails("components", [&] { calendar.components({}); }).fails("date", [&] {
    calendar.date({});
  });
}

TEST(Faulty, FailsInEveryOperationOfTheQueues) {
  Ports ports;
  Faulty<kit::MainQueue> main_queue(ports.loop.mainQueue());
  EveryOperation(main_queue.faults).fails("async", [&] { main_queue.async([] {}); }).fails("after", [&] {
    main_queue.after(1, [] {});
  });
  Faulty<kit::BackgroundQueue> background_queue(ports.loop.backgroundQueue());
  EveryOperation(background_queue.faults).fails("async", [&] { background_queue.async([] {}); });
  Faulty<kit::BackgroundTasks> tasks(ports.loop.backgroundTasks());
  EveryOperation(tasks.faults)
      .fails("beginBackgroundTaskWithExpirationHandler", [&] { tasks.beginBackgroundTaskWithExpirationHandler([] {}); })
      .fails("endBackgroundTask", [&] { tasks.endBackgroundTask(1); });
  Faulty<kit::NotificationCenter> notifications(ports.loop.notifications());
  EveryOperation(notifications.faults).fails("addObserver", [&] {
    notifications.addObserver(kit::Notification::kApplicationDidBecomeActive, [] {});
  });
  EXPECT_EQ(ports.loop.waitingMainBlocks() + ports.loop.waitingBackgroundBlocks() + ports.loop.waitingTimers(), 0u);
}

TEST(Faulty, FailsInEveryOperationOfStoreAndNetwork) {
  Ports ports;
  Faulty<kit::KeyValueStore> store(ports.store);
  EveryOperation(store.faults)
      .fails("get", [&] { store.get("a"); })
      .fails("set", [&] { store.set("a", 1); })
      .fails("append", [&] { store.append("key", 1); })
      .fails("replace", [&] { store.replace("key", kit::Value(), kit::Array()); })
      .fails("synchronize", [&] { store.synchronize(); })
      .fails("tryGet", [&] { (void)store.tryGet("a"); })
      .fails("trySetAndSynchronize", [&] { store.trySetAndSynchronize("a", 1); });
  Faulty<kit::Transport> transport(ports.transport);
  EveryOperation(transport.faults).fails("start", [&] { transport.start({}, [](const kit::TransportOutcome&) {}); });
  Faulty<kit::JsonCodec> codec(ports.json);
  EveryOperation(codec.faults)
      .fails("read", [&] { (void)codec.read("1"); })
      .fails("write", [&] { (void)codec.write(1); })
      .fails("writePretty", [&] { (void)codec.writePretty(1); });
  Faulty<kit::ReportShelf> shelf(ports.shelf);
  EveryOperation(shelf.faults)
      .fails("append", [&] { shelf.append("report"); })
      .fails("reports", [&] { shelf.reports(); })
      .fails("clear", [&] { shelf.clear(); });
  EXPECT_TRUE(ports.shelf.reports().empty());
  EXPECT_EQ(ports.store.journalTexts(), Texts{});
  EXPECT_EQ(ports.transport.unanswered(), 0u);
}

TEST(Faulty, FailsInEveryOperationOfCryptography) {
  Ports ports;
  std::string out;
  Faulty<kit::Cipher> cipher(ports.cipher);
  EveryOperation(cipher.faults)
      .fails("encrypt", [&] { cipher.encrypt("", std::string(kit::kNonceBytes, 'n'), "", "", out); })
      .fails("decrypt", [&] { cipher.decrypt("", "", "", "", out); });
  Faulty<kit::Compressor> compressor(ports.compressor);
  EveryOperation(compressor.faults).fails("deflate", [&] { compressor.deflate("x", out); }).fails("inflate", [&] {
    compressor.inflate("x", 1, out);
  });
  Faulty<kit::Random> random(ports.random);
  EveryOperation(random.faults).fails("fill", [&] { random.fill({}); });
  EXPECT_EQ(out, "");
}

TEST(Faulty, FailsInEveryOperationOfDeviceAdClientAndLog) {
  Ports ports;
  Faulty<kit::Device> device(ports.device);
  EveryOperation(device.faults)
      .fails("systemVersion", [&] { device.systemVersion(); })
      .fails("isMultitaskingSupported", [&] { device.isMultitaskingSupported(); })
      .fails("statusBarOrientation", [&] { device.statusBarOrientation(); })
      .fails("canOpenURL", [&] { device.canOpenURL(kit::Url("")); });
  Faulty<kit::Bundle> bundle(ports.bundle);
  EveryOperation(bundle.faults).fails("objectForInfoDictionaryKey", [&] { bundle.objectForInfoDictionaryKey(""); });
  Faulty<kit::Threads> threads(ports.threads);
  EveryOperation(threads.faults).fails("currentThreadDescription", [&] { threads.currentThreadDescription(); });
  Faulty<kit::AdClient> ad_client(ports.ad_client);
  EveryOperation(ad_client.faults)
      .fails("offersAttributionDetails", [&] { ad_client.offersAttributionDetails(); })
      .fails("offersConversionDetails", [&] { ad_client.offersConversionDetails(); })
      .fails("offersInstallationAttribution", [&] { ad_client.offersInstallationAttribution(); })
      .fails("requestAttributionDetailsWithBlock", [&] { ad_client.requestAttributionDetailsWithBlock({}); })
      .fails("lookupAdConversionDetails", [&] { ad_client.lookupAdConversionDetails({}); })
      .fails("determineAppInstallationAttributionWithCompletionHandler",
             [&] { ad_client.determineAppInstallationAttributionWithCompletionHandler({}); });
  Faulty<kit::LogSink> log(ports.log);
  EveryOperation(log.faults).fails("line", [&] { log.line("x"); }).fails("tryLine", [&] { log.tryLine("x"); });
  EXPECT_EQ(ports.log.messages(), Texts{});
  EXPECT_EQ(ports.ad_client.attribution_details.calls(), 0u);
}

TEST(Faulty, FailsInEveryOperationOfTheUtilityClass) {
  Ports ports;
  Faulty<kit::MorvikADUtil> util(ports.util);
  EveryOperation(util.faults)
      .fails("checkNilToBlankString", [&] { util.checkNilToBlankString({}); })
      .fails("checkNilToNo", [&] { util.checkNilToNo({}); })
      .fails("checkIntegerNilToZero", [&] { util.checkIntegerNilToZero({}); })
      .fails("checkLongLongNilToZero", [&] { util.checkLongLongNilToZero({}); })
      .fails("checkDoubleNilToZero", [&] { util.checkDoubleNilToZero({}); })
      .fails("checkNilToZero", [&] { util.checkNilToZero({}); })
      .fails("getURLParmaters", [&] { util.getURLParmaters(kit::Url("")); })
      .fails("getKoreaDateFormateDate", [&] { util.getKoreaDateFormateDate({}); })
      .fails("getUTCFormateDate", [&] { util.getUTCFormateDate({}); })
      .fails("getUTCFormateDateISO", [&] { util.getUTCFormateDateISO({}); })
      .fails("timeIntervalSinceServerDate", [&] { util.timeIntervalSinceServerDate({}, 0); })
      .fails("IDFA", [&] { util.IDFA(); })
      .fails("getNetworkStatus", [&] { util.getNetworkStatus(); })
      .fails("platformString", [&] { util.platformString(); })
      .fails("freeDiskSpace", [&] { util.freeDiskSpace(); })
      .fails("getFreeRam", [&] { util.getFreeRam(); })
      .fails("memoryFormatter", [&] { util.memoryFormatter(1); });
}

TEST(Faulty, FailsInEveryOperationOfTheModules) {
  testing::FakeModules fakes;
  fakes.add("Fendo");
  Faulty<kit::ModuleRegistry> modules(fakes);
  EXPECT_EQ(modules.find("Fendo"), fakes.find("Fendo"));
  EXPECT_EQ(modules.find("FendoLib"), nullptr);
  Faulty<kit::ModuleRegistry> failing(fakes);
  EveryOperation(failing.faults).fails("find", [&] { failing.find("Fendo"); });
  EXPECT_EQ(failing.faults.thrown(), Texts{"ModuleRegistry.find, call 1: int 7"});
}

TEST(Faulty, FailsInEveryOperationOfTheSiblings) {
  Ports ports;
  Faulty<kit::Facade> facade(ports.facade);
  EveryOperation(facade.faults).fails("delegate", [&] { facade.delegate(); });
  Faulty<kit::MorvikCoreUpdateLog> update_log(ports.update_log);
  EveryOperation(update_log.faults)
      .fails("frameworkName", [&] { update_log.frameworkName(); })
      .fails("getSDKVersion", [&] { update_log.getSDKVersion(); });
  Faulty<kit::MorvikADGetPUID> puid(ports.puid);
  EveryOperation(puid.faults).fails("getAESHashedPUID", [&] { puid.getAESHashedPUID(); });
  Faulty<kit::MorvkSDKConfig> config(ports.config);
  EveryOperation(config.faults).fails("getTrackingSuperkey", [&] { config.getTrackingSuperkey(); });
}

TEST(Faulty, FailsInEveryOperationOfTheServicesObject) {
  Ports ports;
  Faulty<kit::MorvikCoreServicesLib> services(ports.services);
  EveryOperation(services.faults)
      .fails("appKey", [&] { services.appKey(); })
      .fails("hashKey", [&] { services.hashKey(); })
      .fails("isGDPRForgetMe", [&] { services.isGDPRForgetMe(); })
      .fails("setIsGDPRForgetMe", [&] { services.setIsGDPRForgetMe(true); })
      .fails("setIsGDPRForgetMeServerSynced", [&] { services.setIsGDPRForgetMeServerSynced(true); })
      .fails("isSendingOff", [&] { services.isSendingOff(); })
      .fails("intervalSinceServerDate", [&] { services.intervalSinceServerDate(); })
      .fails("setIntervalSinceServerDate", [&] { services.setIntervalSinceServerDate(1); })
      .fails("activityGroupName", [&] { services.activityGroupName(0); })
      .fails("addActivityGroupName", [&] { services.addActivityGroupName("a", "b", "c", {}); })
      .fails("makeCommonParameter", [&] { services.makeCommonParameter(""); })
      .fails("makeJsonParameter", [&] { services.makeJsonParameter({}, ""); })
      .fails("setConversionResult", [&] { services.setConversionResult(true); })
      .fails("setConversionResultCode", [&] { services.setConversionResultCode(1); })
      .fails("appleAdvertisingIdentifier", [&] { services.appleAdvertisingIdentifier(); })
      .fails("saveConversionInfoForCacheWithConversionArr",
             [&] { services.saveConversionInfoForCacheWithConversionArr({}); })
      .fails("saveConversionInfoForCache", [&] { services.saveConversionInfoForCache(1); })
      .fails("saveConversionTimeInfoForCache", [&] { services.saveConversionTimeInfoForCache("1", 2); })
      .fails("isPremiumPostback", [&] { services.isPremiumPostback(); })
      .fails("setIsPremiumPostback", [&] { services.setIsPremiumPostback(true); })
      .fails("saveFendoUserInfoDelegate", [&] { services.saveFendoUserInfoDelegate(); })
      .fails("resetRetainedConversionCacheDeleate", [&] { services.resetRetainedConversionCacheDeleate(); })
      .fails("setResetRetainedConversionCacheDeleate", [&] { services.setResetRetainedConversionCacheDeleate({}); })
      .fails("saveRetainedConversionKeyDelegate", [&] { services.saveRetainedConversionKeyDelegate(); })
      .fails("setSaveRetainedConversionKeyDelegate", [&] { services.setSaveRetainedConversionKeyDelegate({}); })
      .fails("getScheduleDelegate", [&] { services.getScheduleDelegate(); })
      .fails("setGetScheduleDelegate", [&] { services.setGetScheduleDelegate({}); })
      .fails("exchangeDidEnd", [&] { services.exchangeDidEnd({}, {}); });
  EXPECT_EQ(ports.services.calls(), Texts{});
}

}  // namespace
}  // namespace morvik::test
