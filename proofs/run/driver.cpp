#include "proofs/run/driver.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "host/store/store_database.h"
#include "host/store/store_files.h"
#include "proofs/run/newer_program.h"
#include "proofs/run/power_cut_loss.h"
#include "proofs/run/stored_keys.h"
#include "services/json_writer.h"

namespace morvik::proofs {
namespace {

constexpr int kMostTalkative = 6;

}  // namespace

Driver::Driver(DriverOptions options)
    : options_(std::move(options)),
      dice_(options_.seed),
      sabotage_(options_.sabotage),
      flaky_disk_([this] { return now(); }, [this](const simulation::DiskCall& call) { diskChanges(call); }),
      machine_(machineOptions(), *this, &sabotage_),
      invariants_(makeInvariants(
          tracker_.facts, [this](const char* invariant, const std::string& text) { complain(invariant, text); })) {
  machine_.transport.setObserver([this](const kit::Request& request) { requestLeaves(request); });
  machine_.transport.on("").alwaysBy([this](const kit::Request& request) { return serve(request); });
  flaky_disk_.answerBy([this](const simulation::DiskCall& call) { return sabotage_.diskAnswer(call); });
  app_ = simulation::simulatedApp();
  app_.log_level = kMostTalkative;
  app_.log_sink = [this](std::string_view line) { lineLogged(sabotage_.logged(line)); };
}

Driver::~Driver() = default;

simulation::VirtualMachineOptions Driver::machineOptions() {
  simulation::VirtualMachineOptions options;
  options.seed = dice_.next();
  options.disk = &flaky_disk_.disk;
  return options;
}

void Driver::perform(std::function<void()> block) {
  needProcess();
  if (!process_)
    return;
  process_->mainQueue().async([this, block = std::move(block)] {
    if (!isOver())
      block();
  });
}

void Driver::checkAnswerOfTheStore(Recorded answer, RecordNumber number) {
  answer = sabotage_.told(answer);
  if (answer == Recorded::kKeptInMemory)
    ++figures_.kept_in_memory;
  // What a stop still lets run may come after the store's end.
  if (!is_stopping_)
    checkAnswer(answer, trouble_since_ ? Recorded::kKeptInMemory : Recorded::kKept);
  if (!isCut())
    tracker_.facts.records[number].told = answer;
}

void Driver::checkAnswer(Recorded told, Recorded rightly) {
  if (!isCut())
    tell([&](Invariant& invariant) { invariant.answered(told, rightly); });
}

void Driver::noteSessionRequest() {
  tracker_.sessionRequested();
  tell([](Invariant& invariant) { invariant.sessionRequested(); });
  sabotage_.sessionStarts(flaky_disk_.disk);
}

void Driver::complain(const std::string& name, const std::string& text) {
  const std::string whole = name + ": " + text;
  trace("! ", whole);
  ++complaint_counts_[name];
  if (complaints_.size() < kMaxRunComplaints)
    complaints_.push_back(whole);
}

// ------------------------------------------------------------------------------------------------ processes and ends

void Driver::needProcess() {
  if (process_ || isCut())
    return;
  prepareStart();
  flaky_disk_.processStarts(true);
  is_starting_ = true;
  machine_.setOffline(false);
  process_ = machine_.start(app_);
  machine_.loop.runUntilIdle();
  is_starting_ = false;
  flaky_disk_.processStarts(false);
  noteStart();
  if (isCut())
    return;
  processStarted();
  check();
}

void Driver::prepareStart() {
  ++figures_.processes;
  tell([](Invariant& invariant) { invariant.processBegins(); });
  RunFacts& facts = tracker_.facts;
  facts.now = now();
  facts.knows_its_store = !facts.is_next_to_newer;
  facts.is_unavailable = facts.is_next_to_newer;
  if (facts.is_next_to_newer) {
    ++figures_.newer_stores;
    trouble_since_ = now();
  }
  sync_seconds_ = drawSyncSeconds();
  machine_.sync_seconds = sabotage_.syncSeconds(sync_seconds_);
  if (sync_seconds_ > 0)
    ++figures_.slow_disks;
  sabotage_.processStarts(flaky_disk_.disk);
}

void Driver::noteStart() {
  name_while_unavailable_ = process_->storedValue(kInstallIdKey);
  is_active_ = false;
  is_unsettled_ = true;
  for (auto& each : std::exchange(committed_at_start_, {})) {
    if (!isCut())
      each();
  }
  if (isCut())
    return;
  made_device_at_ = std::min(made_device_at_, now());
  tracker_.processBegins(reader());
  // Not the bytes on the disk: SQLite salts its log from a source that all threads share.
  for (const auto& [name, value] : process_->allStored()) {
    transcript_.add(name);
    transcript_.add(services::jsonDescription(value));
  }
}

void Driver::die(RunEnd end, const simulation::DiskCut& cut) {
  flaky_disk_.disk.cutNow();
  note(nameOf(end));
  ++figures_.ends[static_cast<size_t>(end)];
  const bool power_lost = isPowerLoss(end);
  machine_.kill(std::move(process_), cut);
  process_ = nullptr;
  noteEnd(undoneFrom(power_lost), power_lost);
  if (power_lost)
    flaky_disk_.powerWasLost();
  flaky_disk_.processDied();
  sabotage_.processDied(flaky_disk_.disk);
}

double Driver::undoneFrom(bool power_lost) const {
  const double undone_from = trouble_since_.value_or(kNever);
  return power_lost ? std::min(undone_from, unsyncedFrom()) : undone_from;
}

double Driver::unsyncedFrom() const {
  return std::min(now(), flaky_disk_.unsyncedForAReasonSince().value_or(kNever)) - powerCutLossSeconds(sync_seconds_);
}

void Driver::noteEnd(double undone_from, bool power_lost) {
  RunFacts& facts = tracker_.facts;
  if (wish_in_file_from_ >= (power_lost ? unsyncedFrom() : kNever)) {
    wish_in_file_from_ = kNever;
    facts.wish_is_in_its_file = false;
  }
  tell([](Invariant& invariant) { invariant.processEnds(); });
  tracker_.processEnds(undone_from, power_lost ? unsyncedFrom() : kNever, power_lost);
  facts.is_alive = false;
  facts.ledger.reset();
  if (wish_kept_from_ >= undone_from && !facts.wish_is_in_its_file) {
    is_wish_in_doubt_ = true;
    facts.wants_to_be_forgotten = false;
  }
  is_withdrawal_pending_ = false;
  if (withdrawn_from_ >= undone_from)
    facts.has_withdrawn = false;
  if (made_device_at_ >= undone_from) {
    other_devices_ = service_->installs();
    made_device_at_ = kNever;
    facts.installs = 0;
  }
  if (facts.is_next_to_newer && storeFilesOn(flaky_disk_.disk) != newer_store_)
    complain(kNewerStoreStays, "its files are others after the process");
  is_active_ = false;
  trouble_since_.reset();
  committed_at_start_.clear();
}

void Driver::endInOrder() {
  if (!process_ || isOver())
    return;
  is_stopping_ = true;
  process_->stop();
  is_stopping_ = false;
  if (isCut())
    return;
  ++figures_.ends[static_cast<size_t>(RunEnd::kStopped)];
  process_.reset();
  machine_.loop.kill();
  noteEnd(trouble_since_.value_or(kNever), false);
  flaky_disk_.processDied();
}

void Driver::letANewerProgramUseTheStore() {
  if (tracker_.facts.is_next_to_newer)
    return;
  endInOrder();
  if (process_ || isCut())
    return;
  simulation::SimulatedDisk& disk = flaky_disk_.disk;
  const bool is_used = sabotage_.ignoresTheVersion() ? !disk.bytesOf(disk.place().path()).empty()
                                                     : useWithNewerProgram(disk, kNewerStoreVersion);
  if (!is_used)
    return;
  sabotage_.storeIsLeft(disk);
  flaky_disk_.storeWasSynced();
  tracker_.facts.is_next_to_newer = true;
  newer_store_ = storeFilesOn(disk);
}

void Driver::takeTheStoreBack() {
  if (!tracker_.facts.is_next_to_newer)
    return;
  endInOrder();
  if (process_ || isCut())
    return;
  tracker_.facts.is_next_to_newer = false;
  static_cast<void>(useWithNewerProgram(flaky_disk_.disk, host::kStoreVersion));
  flaky_disk_.storeWasSynced();
}

// ---------------------------------------------------------------------------------------------------------- the time

void Driver::advance(double seconds) {
  if (!isOver())
    machine_.loop.advanceUntil([this] { return isOver(); }, seconds);
}

void Driver::turn(uint64_t most_turns) {
  for (uint64_t turns = most_turns; turns > 0 && !isOver(); --turns)
    machine_.loop.step();
}

void Driver::whenCommitted(std::function<void()> block) {
  if (is_starting_) {
    committed_at_start_.push_back(std::move(block));
  } else if (machine_.loop.running() == testing::VirtualLoop::Running::kNothing) {
    block();
  } else {
    machine_.loop.afterCommit([this, block = std::move(block)] {
      if (isCut())
        return;
      tracker_.facts.now = now();
      block();
    });
  }
}

// -------------------------------------------------------------------------------------------------- wishes and checks

void Driver::noteWish(bool forget_me) {
  tracker_.facts.wants_to_be_forgotten = forget_me;
  wish_kept_from_ = wish_in_file_from_ = kNever;
  tracker_.facts.wish_is_in_its_file = tracker_.facts.has_withdrawn = false;
  is_withdrawal_pending_ = false;
  whenCommitted([this, forget_me] {
    wish_kept_from_ = now();
    is_withdrawal_pending_ = !forget_me;
    lookAtTheWishFile();
    lookAtTheWithdrawal();
  });
}

/// A wish is safe in either of its homes.
void Driver::lookAtTheWishFile() {
  RunFacts& facts = tracker_.facts;
  if (!facts.wants_to_be_forgotten || !process_ || !process_->isGdprForgetMe() || wish_in_file_from_ != kNever ||
      process_->status().wish_file != WishFileState::kGood)
    return;
  wish_in_file_from_ = now();
  facts.wish_is_in_its_file = true;
}

/// A withdrawal is safe once it is in both.
void Driver::lookAtTheWithdrawal() {
  const bool is_taken = process_ && !trouble_since_ && process_->status().wish_file == WishFileState::kGood;
  if (!is_withdrawal_pending_ || !is_taken || process_->isGdprForgetMe())
    return;
  is_withdrawal_pending_ = false;
  withdrawn_from_ = now();
  tracker_.facts.has_withdrawn = true;
}

void Driver::check() {
  RunFacts& facts = tracker_.facts;
  facts.now = now();
  facts.is_alive = process_ != nullptr;
  if (process_)
    checkProcess();
  tell([](Invariant& invariant) { invariant.stepEnds(); });
  if (process_ && is_unsettled_ && facts.knows_its_store) {
    is_unsettled_ = false;
    tracker_.settle();
  }
  machine_.transport.clearRequests();
}

void Driver::checkProcess() {
  RunFacts& facts = tracker_.facts;
  facts.is_forgotten = process_->isGdprForgetMe();
  facts.ledger = process_->ledger();
  traceLedger(*facts.ledger);
  if (!facts.knows_its_store && !trouble_since_ && machine_.loop.waitingMainBlocks() == 0)
    facts.knows_its_store = true;
  for (const std::string& wrong : tracker_.look(reader()))
    complain(kStoreHoldsEachOnce, wrong);
  tracker_.lookAtTheShelf(machine_.report_shelf.reports());
  if (facts.knows_its_store && std::exchange(is_wish_in_doubt_, false)) {
    facts.wants_to_be_forgotten = facts.is_forgotten;
    wish_kept_from_ = now();
  }
  lookAtTheWishFile();
  lookAtTheWithdrawal();
  if (machine_.loop.waitingMainBlocks() == 0)
    tell([](Invariant& invariant) { invariant.loopIdle(); });
}

Tracker::Read Driver::reader() const {
  return [this](std::string_view key) { return process_->storedValue(key); };
}

void Driver::makeHealthy() {
  is_healthy_ = true;
  flaky_disk_.recover();
  machine_.transport.goOnline();
  sabotage_.healthyEndStarts();
}

/// Not without a tracking key, without sessions that end, without the identifier without which a commerce link is
/// none, or with a record of its install that names no user.
bool Driver::mayDeliverAll() const {
  if (!process_ || process_->isGdprForgetMe() || app_.tracking_key.text().empty() ||
      app_.device.multitasking == false || app_.device.idfa.source() == Identifier::Source::kNone)
    return false;
  const auto properties = process_->properties();
  return properties.fendoUserInfo_fendoUserNo() != -1 && properties.fendoUserInfo_referralKey() != -1;
}

void Driver::checkHealthyEnd() {
  tracker_.facts.is_all_well = mayDeliverAll();
  check();
  if (process_ && process_->pending().background_tasks > 0)
    complain(kRequestsReturn, "a background task was never ended");
}

void Driver::countRecord(const ExpectedRecord& record) {
  ++figures_.recorded;
  if (record.kind == RecordKind::kActivities && record.times_sent > 1)
    figures_.sent_again += record.times_sent - 1;
  if (record.has_arrived) {
    ++figures_.delivered;
  } else if (record.is_stored) {
    ++figures_.stored;
  } else if (record.is_undone || record.is_in_doubt) {
    ++figures_.undone;
    if (record.told == Recorded::kKeptInMemory)
      ++figures_.undone_in_memory;
  } else {
    ++figures_.given_up;
    if (const std::optional<size_t> row = record.firstRule())
      ++figures_.given_up_by_rule[*row];
  }
}

void Driver::end() {
  for (size_t fault = 0; fault < kFlakyDiskFaults; ++fault)
    figures_.disk_faults[fault] = flaky_disk_.failed()[fault];
  for (const ExpectedRecord& record : tracker_.facts.records.all())
    countRecord(record);
  figures_.runs = 1;
  if (process_ && !isCut())
    process_->stop();
}

}  // namespace morvik::proofs
