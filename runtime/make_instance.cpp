#include "runtime/make_instance.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "runtime/instance_parts.h"
#include "runtime/ledger/ledger_store.h"
#include "runtime/life/instance_ending.h"
#include "runtime/log/app_log_sink.h"
#include "runtime/sending/batch_limit.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/endpoints.h"
#include "services/guard.h"
#include "services/text_codes.h"

namespace morvik::runtime {
namespace {

/// The environment's log file replaces the app's sink.
std::variant<std::unique_ptr<MachineLogSink>, kit::Error> makeLogSink(Machine& machine, const CheckedOptions& checked,
                                                                      const OwnProcess& process) {
  const std::string& file = checked.environment.log_file;
  auto made = machine.makeLogSink(file);
  if (const auto* error = std::get_if<kit::Error>(&made))
    return kit::Error{(file.empty() ? "" : std::string(kLogFileVariable) + ": ") + error->message};
  if (!file.empty() || !checked.options.log_sink)
    return made;
  return std::make_unique<AppLogSink>(checked.options.log_sink,
                                      std::move(std::get<std::unique_ptr<MachineLogSink>>(made)), process);
}

/// Set before the first part that may log is made.
const kit::LogLevels& levelsAt(int level, kit::SharedState& state) {
  setKitLevel(state.log_levels, level);
  return state.log_levels;
}

/// At any level: a reader of the log must know that events go elsewhere.
void tellWhatTheEnvironmentChanged(const InstanceParts& parts) {
  if (const std::string changes = parts.options.environment.changes(); !changes.empty())
    parts.logger.writePlain("Morvik host: the environment changed what the app had set: %@", {changes});
}

std::optional<std::string> advertisingId(InstanceParts& parts) {
  const Identifier& idfa = parts.options.options.device.idfa;
  switch (idfa.source()) {
    case Identifier::Source::kMadeAndKept:
      // The platform writes it in capitals.
      return services::inCapitals(keptIdentifier(*parts.store, kAdvertisingIdKey, *parts.random));
    case Identifier::Source::kGiven:
      return idfa.text();
    case Identifier::Source::kNone:
      break;
  }
  return std::nullopt;
}

MorvikADGetPUID puidOf(InstanceParts& parts) {
  const Identifier& puid = parts.options.options.device.puid;
  switch (puid.source()) {
    case Identifier::Source::kMadeAndKept:
      return MorvikADGetPUID(keptIdentifier(*parts.store, kDeviceIdKey, *parts.random), parts.options.app_key,
                             *parts.keyed_hash);
    case Identifier::Source::kGiven:
      return MorvikADGetPUID(puid.text());
    case Identifier::Source::kNone:
      break;
  }
  return MorvikADGetPUID();
}

UtilFacts utilFacts(InstanceParts& parts) {
  const StartOptions& options = parts.options.options;
  return {.idfa = advertisingId(parts),
          .has_loopback_endpoint = parts.options.has_loopback_endpoint,
          .model = options.device.model,
          .disk_path = options.store_folder};
}

Identity identityOf(InstanceParts& parts) {
  return {.device = parts.options.options.device,
          .app_key = parts.options.app_key,
          .install_id = keptIdentifier(*parts.store, kInstallIdKey, *parts.random),
          .zone_name = parts.calendar->zoneName(),
          .util = parts.util,
          .puid = parts.puid};
}

LedgerParts ledgerParts(InstanceParts& parts) {
  return {.store = *parts.plain_store, .list_lock = parts.list_lock, .logger = parts.logger, .clock = *parts.clock};
}

/// While the store is unavailable, an identifier made by the kit is provisional.
bool namesThisDevice(const InstanceParts& parts, const std::string& erasure) {
  const bool is_made = parts.options.options.device.idfa.source() == Identifier::Source::kMadeAndKept;
  const auto body = parts.json->read(erasure);
  const auto* const read = std::get_if<kit::Value>(&body);
  if (read == nullptr || (is_made && parts.start_hold.isUnavailable()))
    return false;
  const kit::Array identities = (*read)["subject_identities"].array();
  const auto idfa = parts.util.IDFA();
  return identities.size() == 1 && identities[0]["identity_value"] == (idfa ? kit::Value(*idfa) : kit::Value());
}

ObservationsParts observationsParts(InstanceParts& parts) {
  return {.main_loop = *parts.main_loop,
          .facade = parts.facade,
          .clock = *parts.clock,
          .store = parts.properties,
          .logger = parts.logger,
          .endpoints = parts.options.endpoints,
          .is_session_open = [&parts] { return parts.core->isStartSessionCalled(); },
          .names_this_device = [&parts](const std::string& body) { return namesThisDevice(parts, body); }};
}

ServicesLibParts servicesParts(InstanceParts& parts) {
  return {.app_key = parts.options.app_key,
          .hash_key = parts.options.hash_key,
          .tracking_url = services::urlOf(parts.options.endpoints, services::Endpoint::kTracking),
          .store = parts.properties,
          .logger = parts.logger,
          .clock = *parts.clock,
          .sealing = {*parts.cipher, *parts.compressor, *parts.random, &parts.shared_state.stop_request},
          .common = parts.common,
          .util = parts.util,
          .size_trigger = parts.size_trigger,
          .ledger = &parts.ledger,
          .observations = &parts.observations};
}

kit::Ports portsOf(InstanceParts& parts) {
  return {.clock = *parts.clock,
          .calendar = *parts.calendar,
          .main_queue = *parts.main_loop,
          .background_queue = *parts.background,
          .background_tasks = parts.background_tasks,
          .notifications = parts.notifications,
          .key_value_store = *parts.store,
          .list_lock = parts.list_lock,
          .transport = *parts.transport,
          .json = *parts.json,
          .cipher = *parts.cipher,
          .compressor = *parts.compressor,
          .random = *parts.random,
          .device = parts.device,
          .bundle = parts.bundle,
          .threads = *parts.threads,
          .report_shelf = *parts.report_shelf,
          .ad_client = &parts.ad_client,
          .modules = parts.modules,
          .log_sink = *parts.log_sink,
          .endpoints = parts.options.endpoints,
          .shared_state = parts.shared_state,
          .services_lib = parts.services,
          .util = parts.util,
          .puid = parts.puid,
          .facade = parts.facade,
          .update_log = parts.update_log,
          .make_config = [key = parts.options.tracking_key]() -> std::unique_ptr<kit::MorvkSDKConfig> {
            return std::make_unique<MorvkSDKConfig>(key);
          },
          .batch_limit = kBatchLimit,
          .ledger = parts.ledger};
}

// A turn's writes are committed before its requests leave.
void frameTurns(InstanceParts& parts) {
  const auto committed = [&parts](const kit::Block& turn) {
    const TurnGate::Turn open(parts.gate);
    turn();
    // After a fork within the turn, both processes come here; the writes are the parent's.
    if (parts.life->isOwnProcess())
      parts.commit_retry.turnEnded(parts.store->commitTurn());
  };
  parts.main_loop->setFrame([&parts, committed](const kit::Block& turn) {
    committed(turn);
    parts.settle_watch.check();
  });
  parts.background->setFrame([&parts, committed](const kit::Block& block) {
    const MorvikCoreServicesLib::BackgroundBlock one_answer(parts.services);
    committed(block);
  });
  parts.background->setWhenIdle([&parts] {
    // Whoever waits for the kit to settle looks at the end of a main turn.
    if (parts.settle_watch.isWatching())
      parts.main_loop->async([] {});
  });
}

void observeBeforeTheCore(InstanceParts& parts) {
  // Entries of an earlier process come before the first session, although a pumped kit may start that at once.
  parts.notifications.addObserver(kit::Notification::kApplicationDidBecomeActive,
                                  [&parts] { parts.handed_over.handleAll(); });
  for (const auto notification :
       {kit::Notification::kApplicationDidBecomeActive, kit::Notification::kApplicationDidEnterBackground})
    parts.notifications.addObserver(notification, [&parts] {
      parts.observations.sessionMayHaveChanged();
      parts.size_trigger.sessionDidStartOrEnd();
    });
}

constexpr services::GuardClause kCrashNoteThrew = services::oneLine(
    kit::lcl_vError, "Morvik host: what a crash report would say of the device and the app cannot be noted: %@");
constexpr services::Guard kCrashNoteGuard{kCrashNoteThrew, kCrashNoteThrew};

/// On the main queue, or before it runs. Asks an app's modules for their versions.
void noteForACrash(InstanceParts& parts) {
  if (parts.crash_note == nullptr)
    return;
  services::guarded(parts.logger, kCrashNoteGuard, MORVIK_HERE("-[MorvikCore noteForACrash]"), [&parts] {
    auto text = parts.json->write(parts.core->crashFacts());
    if (auto* written = std::get_if<std::string>(&text))
      parts.crash_note->set(std::move(*written));
  });
}

void observeAfterTheCore(InstanceParts& parts) {
  for (const auto notification :
       {kit::Notification::kApplicationDidBecomeActive, kit::Notification::kApplicationDidEnterBackground})
    parts.notifications.addObserver(notification, [&parts] { noteForACrash(parts); });
  parts.notifications.addObserver(kit::Notification::kApplicationDidBecomeActive, [&parts] {
    parts.observations.sessionMayHaveChanged();
    // Notices if the store's files were removed meanwhile.
    parts.store->flushSoon();
  });
  // The core ends the session on the background queue; this runs after it there.
  parts.notifications.addObserver(kit::Notification::kApplicationDidEnterBackground, [&parts] {
    parts.background->async([&parts] {
      parts.observations.sessionMayHaveChanged();
      parts.store->flushNow();
    });
  });
}

constexpr services::GuardClause kHandedOverThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: what the app handed over could not be handled: %@");
constexpr services::Guard kHandedOverGuard{kHandedOverThrew, kHandedOverThrew};

void handle(InstanceParts& parts, const HandedOver::Entry& entry) {
  services::guarded(parts.logger, kHandedOverGuard, MORVIK_HERE("-[MorvikCore handle]"), [&] {
    const kit::Url url{std::string(entry.text)};
    switch (entry.kind) {
      case HandedOver::Kind::kOpenedUrl:
        return parts.core->passOpenURL(
            url, {.time = entry.time,
                  .is_first_launch = entry.is_first_launch,
                  .is_commerce_recorded = entry.is_commerce_recorded,
                  .when_commerce_recorded = [&parts] { parts.handed_over.commerceWasRecorded(); }});
      case HandedOver::Kind::kFacebookUrl:
        return parts.core->setReferralUrlForFacebook(url);
      case HandedOver::Kind::kThirdPartyConversion:
        return parts.core->thirdPartyConversion(parts.core->makeConversionParameter());
    }
  });
}

/// The app's life cycle, for a core made while the user counted as forgotten, which therefore does not observe it.
struct LifeInDoubt {
  bool is_doubt_over = false;
  bool is_active = false;
};

std::shared_ptr<LifeInDoubt> observeInDoubt(InstanceParts& parts) {
  const auto life = std::make_shared<LifeInDoubt>();
  if (parts.plain_store->fileState() != WishFileState::kNotRead)
    return life;
  parts.notifications.addObserver(kit::Notification::kApplicationDidBecomeActive, [&parts, life] {
    life->is_active = true;
    if (life->is_doubt_over)
      parts.core->startSession();
  });
  parts.notifications.addObserver(kit::Notification::kApplicationDidEnterBackground, [&parts, life] {
    life->is_active = false;
    if (life->is_doubt_over)
      parts.core->enterBackground();
  });
  return life;
}

/// The content of the wish's file applies as soon as it can be read: to property, mirror and gate in one step. If the
/// app is active, its session then begins.
void followTheWishFile(InstanceParts& parts) {
  parts.wish_rereading.begin([&parts, life = observeInDoubt(parts)] {
    const bool was_forgotten = parts.services.isGDPRForgetMe();
    parts.properties.inOneStep([&parts] {
      parts.plain_store->takeReadAgain();
      parts.services.loadMirrors();
    });
    parts.transport->wishDidChange();
    const bool is_doubt_over = was_forgotten && !parts.services.isGDPRForgetMe();
    if (is_doubt_over)
      life->is_doubt_over = true;
    if (!is_doubt_over || !life->is_active)
      return parts.handed_over.handleLater();
    parts.handed_over.handleAll();  // as at the start of any session
    parts.core->startSession();
  });
}

/// Whose instance it is: the process's own observes the process and may stand behind its shared core.
enum class InstanceOf { kProcess, kOtherMachine };

void makeCore(InstanceParts& parts, InstanceOf instance_of) {
  observeBeforeTheCore(parts);
  const bool is_shared = instance_of == InstanceOf::kProcess && MorvikCoreLib::provideSharedPorts(parts.ports);
  parts.core = is_shared ? MorvikCoreLib::shared() : MorvikCoreLib::make(parts.ports);
  followTheWishFile(parts);
  observeAfterTheCore(parts);
  parts.flushes.follow(*parts.core, [&parts](size_t activities) { parts.observations.batchLeaves(activities); });
  parts.sending.setWhenResumed([&parts] { parts.core->sendingDidResume(); });
  parts.sending.setAlsoHeld([&parts](bool held) { parts.handed_over.setHeld(held); });
  parts.handed_over.setHandler([&parts](const HandedOver::Entry& entry) { handle(parts, entry); });
  parts.handed_over.setInDoubt(
      [&parts] { return parts.start_hold.isHolding() || parts.plain_store->fileState() == WishFileState::kNotRead; });
  // An erasure names the device.
  parts.core->setWishesHeld(parts.store->opening() == StoreOpening::kUnavailable);
  parts.start_hold.begin(
      {.when_over =
           [&parts] {
             parts.handed_over.handleLater();
             parts.core->setWishesHeld(false);
             // After the waiting session, which may ask for the attribution.
             parts.main_loop->async([&parts] { parts.flushes.storeMayBeKnown(); });
           },
       .when_settled = [&parts] { parts.main_loop->async([&parts] { parts.flushes.storeMayBeKnown(); }); },
       .deliver = [&parts](kit::Notification notification) { parts.notifications.post(notification); }});
  parts.handed_over.begin();
  parts.size_trigger.setCall([&parts] { parts.core->chkAndSendDataWhenActivityCntMoreThenTen(); });
}

void tellThatCrashesAreNotReported(const InstanceParts& parts, const kit::Error& why) {
  MORVIK_LOG(parts.logger, kit::lcl_vWarning, "+[MorvikCore start]", "Morvik host: crashes are not reported: %@", why);
}

void reportCrashes(InstanceParts& parts, MachineCrashes& crashes) {
  CrashReporting reporting;
  reporting.concerns_us = MorvikCoreLib::concernsTheKit;
  reporting.report = [core = parts.core](const kit::UncaughtException& exception) {
    core->makeCrashParameter(exception);
  };
  reporting.is_app_in_focus = [](const void* core) { return static_cast<const MorvikCoreLib*>(core)->isAppinFocus(); };
  reporting.context = parts.core.get();
  reporting.note = parts.crash_note = std::make_shared<CrashNote>();
  noteForACrash(parts);
  auto installed = crashes.install(std::move(reporting));
  if (const auto* error = std::get_if<kit::Error>(&installed)) {
    tellThatCrashesAreNotReported(parts, *error);
    parts.crash_note = nullptr;
    return;
  }
  parts.crash_hook = std::move(std::get<std::unique_ptr<MachineCrashHook>>(installed));
}

void watchProcess(InstanceParts& parts, Machine& machine) {
  const auto crashes = machine.makeCrashes(parts.options.options.store_folder, *parts.json, parts.logger);
  if (crashes == nullptr) {
    if (parts.options.options.report_crashes)
      tellThatCrashesAreNotReported(
          parts, {"this platform has no crash reporting; set StartOptions::report_crashes to false"});
    return;
  }
  {
    const LedgerBook::Rewriting naming(parts.ledger, LedgerKind::kCrashReports);
    crashes->nameStoredTraces(parts.properties);
  }
  crashes->reportEarlier(
      [&core = *parts.core](const kit::UncaughtException& crash) { return core.takeCrashOfEarlierProcess(crash); });
  parts.commit_retry.turnEnded(parts.store->commitTurn());
  if (parts.options.options.report_crashes)
    reportCrashes(parts, *crashes);
}

/// The device is the one that the file knows, from now on also in requests.
void takeOverIdentifiers(InstanceParts& parts) {
  const DeviceDescription& device = parts.options.options.device;
  if (device.idfa.source() == Identifier::Source::kMadeAndKept)
    parts.util.replaceIDFA(advertisingId(parts).value_or(""));
  if (device.puid.source() == Identifier::Source::kMadeAndKept)
    parts.puid.replaceDeviceId(keptIdentifier(*parts.store, kDeviceIdKey, *parts.random));
  parts.common.replace(identityOf(parts));
}

/// Reloads the mirrors of a store that could not be read at first. A user who asked to be forgotten is so from the
/// recovering commit on, so that nothing of its turn leaves.
void followTheStore(InstanceParts& parts) {
  parts.store->setWhenTakenOver([&parts] {
    parts.services.closeIfStoredForgotten();
    takeOverIdentifiers(parts);
    if (parts.core != nullptr)
      parts.core->storeRecovered();
    // In one step, so that another thread's wish cannot be undone by an older reading. In a turn of its own, since a
    // commit calls nobody: what waits to leave is asked again.
    parts.main_loop->async([&parts] {
      parts.properties.inOneStep([&parts] { parts.services.loadMirrors(); });
      parts.transport->wishDidChange();
      noteForACrash(parts);
      parts.start_hold.storeRecovered();
      parts.main_loop->async([&parts] { parts.flushes.storeMayBeKnown(); });
    });
    parts.handed_over.handleLater();
  });
}

/// At any level, if there is a log: they are addressed to whoever wrote the options.
void tellWarnings(const InstanceParts& parts) {
  if (!parts.logger.enabled(kit::lcl_vCritical))
    return;
  for (const std::string& warning : parts.options.warnings)
    parts.logger.write(kit::lcl_vWarning, MORVIK_HERE("+[MorvikCore start]"), "Morvik host: check the options: %@",
                       {warning});
}

/// The paths are used again and again, and the app may change its working directory.
void makePlacesAbsolute(const MachineInputs& inputs, StartOptions& options) {
  options.store_folder = inputs.absolutePath(options.store_folder);
  if (!options.ca_file.empty())
    options.ca_file = inputs.absolutePath(options.ca_file);
}

std::variant<std::unique_ptr<Instance>, kit::Error> makeInstanceOn(Machine& machine, std::unique_ptr<Machine> owned,
                                                                   const StartOptions& options,
                                                                   InstanceOf instance_of) {
  const auto life = std::make_shared<InstanceLife>(OwnProcess(machine.processWord()));
  StartOptions guarded = options;
  InstanceLife::guard(life, guarded);
  const auto inputs = machine.makeInputs();
  auto checked = checkOptions(guarded, *inputs);
  if (auto* error = std::get_if<kit::Error>(&checked))
    return std::move(*error);
  if (auto error = inputs->checkPlaces(options))
    return *std::move(error);
  makePlacesAbsolute(*inputs, std::get<CheckedOptions>(checked).options);
  const std::string store_folder = std::get<CheckedOptions>(checked).options.store_folder;
  auto made_sink = makeLogSink(machine, std::get<CheckedOptions>(checked), life->process());
  if (auto* error = std::get_if<kit::Error>(&made_sink))
    return std::move(*error);
  auto sink = std::make_unique<ClosableLogSink>(std::move(std::get<std::unique_ptr<MachineLogSink>>(made_sink)),
                                                life->process());
  auto eraser_log =
      std::make_unique<StartLog>(std::get<CheckedOptions>(checked).options.log_level, *sink, "+[MorvikCore start]");
  auto eraser = machine.makeEraser(store_folder, eraser_log->lines());
  if (auto error = eraser->resume())
    return *std::move(error);
  const auto parts = std::make_shared<InstanceParts>(life, std::get<CheckedOptions>(std::move(checked)),
                                                     std::move(sink), machine, std::move(owned));
  parts->eraser_log = std::move(eraser_log);
  // The eraser runs on an app's thread, which waits for the threads of the store that it opens.
  parts->eraser_log->passOnTo(parts->lines.later());
  parts->eraser = std::move(eraser);
  if (parts->store->opening() == StoreOpening::kLocked)
    return kit::Error{parts->store->openingLine()};
  // Its last owner may have released it only now, in the middle of an erasure.
  if (parts->eraser->isDue())
    return kit::Error{"the data in \"" + store_folder + "\" is being erased; start again"};
  machine.takeEditor([weak = std::weak_ptr(parts)](std::string_view key, kit::Value value) {
    if (const auto edited = weak.lock())
      edited->ledger.set(key, std::move(value), LedgerWriter::kHand);
  });
  tellWhatTheEnvironmentChanged(*parts);
  tellWarnings(*parts);
  parts->store->tellWaiting();
  followTheStore(*parts);
  frameTurns(*parts);
  if (!options.opened_url.empty())
    keepOpenedUrl(*parts, kit::Url(options.opened_url));
  makeCore(*parts, instance_of);
  if (instance_of == InstanceOf::kProcess)
    watchProcess(*parts, machine);
  parts->commit_retry.turnEnded(parts->store->commitTurn());
  auto instance = std::make_unique<Instance>(parts);
  if (auto error = instance->open())
    return *std::move(error);
  instance->tellThatItStarted();
  if (instance_of == InstanceOf::kProcess)
    stopAtExit(instance->ending(), life->process());
  return instance;
}

}  // namespace

InstanceParts::InstanceParts(std::shared_ptr<InstanceLife> instance_life, CheckedOptions checked,
                             std::unique_ptr<ClosableLogSink> sink, Machine& machine, std::unique_ptr<Machine> owned)
    : owned_machine(std::move(owned)),
      life(std::move(instance_life)),
      has_threads(machine.hasThreads()),
      options(std::move(checked)),
      log_sink(std::move(sink)),
      lines(levelsAt(options.options.log_level, shared_state), *log_sink, life->process()),
      logger(shared_state.log_levels, lines),
      store_lines(logger, "-[MorvikCore store]"),
      report_lines(logger, "-[MorvikCore crashReports]"),
      clock(machine.makeClock()),
      calendar(machine.makeCalendar()),
      random(machine.makeRandom()),
      threads(machine.makeThreads()),
      facts(machine.makeFacts()),
      cipher(machine.makeCipher()),
      compressor(machine.makeCompressor(shared_state.stop_request)),
      keyed_hash(machine.makeKeyedHash()),
      json(machine.makeJsonCodec()),
      wish_file(machine.makeWishFile(options.options.store_folder)),
      bare_store(machine.makeStore(options.options.store_folder, store_lines)),
      plain_store(std::make_unique<WishStore>(*bare_store, wish_file.get(), logger)),
      ledger(ledgerParts(*this)),
      store(std::make_unique<LedgerStore>(*plain_store, ledger, list_lock)),
      properties(*store, list_lock),
      main_loop(machine.makeMainLoop(options.options.main_queue, logger)),
      background(machine.makeBackground(logger)),
      background_tasks(*main_loop),
      erasure_hold(*plain_store, *main_loop, logger),
      wish_rereading(*plain_store, *main_loop),
      start_hold(*store, *main_loop),
      bare_transport(machine.makeTransport({.ca_file = options.options.ca_file,
                                            .main_queue = *main_loop,
                                            .gate = gate,
                                            .is_forgotten = [this] { return services.isGDPRForgetMe(); }})),
      transport(std::make_unique<ErasureHoldTransport>(
          *bare_transport, erasure_hold, [this](const std::string& body) { observations.erasureDidEnd(body); })),
      settle_watch(*main_loop, [this] { return pending().isSettled(); }),
      commit_retry(*main_loop),
      util(utilFacts(*this), *facts),
      puid(puidOf(*this)),
      common(identityOf(*this)),
      size_trigger(*main_loop),
      observations(observationsParts(*this)),
      services(servicesParts(*this)),
      sending({*main_loop, *transport, services}, options.options.sending),
      flushes({*main_loop, *clock, gate, properties, ledger, services, sending, util, shared_state, lines, logger,
               *life, start_hold}),
      device(options.options.device),
      bundle(options.options.device),
      report_shelf(machine.makeReportShelf(options.options.store_folder, *json, report_lines)),
      ad_client(options.options.ad_client, *json, *main_loop),
      modules(options.options.modules),
      handed_over(properties, *main_loop, shared_state.stop_request, logger),
      ports(portsOf(*this)) {
  lines.setMainQueue(*main_loop);
}

InstanceParts::~InstanceParts() {
  store->setWhenTakenOver(nullptr);  // what it calls is destroyed before the store
}

void keepOpenedUrl(InstanceParts& parts, const kit::Url& url) {
  if (const auto waiting = parts.properties.URLForKey(services::kPassOpenUrlKey); waiting && *waiting != url) {
    MORVIK_LOG(
        parts.logger, kit::lcl_vWarning, "-[MorvikCore passOpenURL:]",
        "Morvik host: an opened URL of %lu bytes was never handled, and is replaced by one of %lu bytes: only one "
        "can wait for the next session start",
        waiting->absoluteString().size(), url.absoluteString().size());
  }
  parts.properties.setURL(url, services::kPassOpenUrlKey);
}

void InstanceParts::setLogLevel(int level) {
  setKitLevel(shared_state.log_levels, level);
}

// In the order in which work moves from one to the next, so that none is missed.
Pending InstanceParts::pending() const {
  Pending pending;
  pending.background_blocks = background->pending();
  pending.requests = transport->inFlight();
  const MainLoopCounts counts = main_loop->counts();
  pending.main_blocks = counts.blocks;
  pending.session_end_blocks = counts.short_timers;
  pending.retries = counts.longer_timers;
  pending.background_tasks = background_tasks.open();
  return pending;
}

std::variant<std::unique_ptr<Instance>, kit::Error> makeInstance(const StartOptions& options,
                                                                 std::unique_ptr<Machine> machine) {
  prepareForExit();
  Machine& made_on = *machine;
  return makeInstanceOn(made_on, std::move(machine), options, InstanceOf::kProcess);
}

std::variant<std::unique_ptr<Instance>, kit::Error> makeInstance(const StartOptions& options, Machine& machine) {
  return makeInstanceOn(machine, nullptr, options, InstanceOf::kOtherMachine);
}

}  // namespace morvik::runtime
