// Drives a device through a run: its processes on the disk and the machine, their ends, the newer program's turn, the
// service; and has the tracker and the invariants look at all of it. A script says what happens.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "proofs/oracle/invariants.h"
#include "proofs/oracle/tracker.h"
#include "proofs/run/flaky_disk.h"
#include "proofs/run/misbehaviours.h"
#include "proofs/run/run_figures.h"
#include "proofs/run/sabotage.h"
#include "proofs/run/transcript.h"
#include "proofs/run/watched_machine.h"
#include "runtime/instance.h"
#include "simulation/dice.h"
#include "simulation/virtual_service.h"

namespace morvik::proofs {

inline constexpr size_t kMaxRunComplaints = 10;

struct DriverOptions {
  uint64_t seed = 1;
  Sabotage sabotage = Sabotage::kNone;
  /// Told what happens, line by line; empty: nobody.
  std::function<void(std::string_view line)> trace;
};

/// One device, its machine and its service. Use from one thread; shares nothing with others.
class Driver : private MachineWatcher {
 public:
  explicit Driver(DriverOptions options);
  ~Driver() override;

  // Public for those that act for the app (proofs/run/app.h).
  WatchedMachine& machine() { return machine_; }
  Tracker& tracker() { return tracker_; }
  RunSabotage& sabotage() { return sabotage_; }
  RunFigures& figures() { return figures_; }
  StartOptions& app() { return app_; }
  runtime::Instance& process() { return *process_; }
  bool isHealthy() const { return is_healthy_; }
  bool isStoreWritable() const { return !flaky_disk_.isFailing(FlakyDiskFault::kUnwritable); }

  /// What the app does, on the main queue. Starts a process if there is none.
  void perform(std::function<void()> block);
  /// Holds what the app was told of a record against what the store said.
  void checkAnswerOfTheStore(Recorded answer, RecordNumber number);
  /// The same for any answer.
  void checkAnswer(Recorded told, Recorded rightly);
  /// The app wants to be forgotten, or no longer.
  void noteWish(bool forget_me);
  void noteSessionRequest();
  /// What the app did ends the process at the end of the step.
  void crash() { is_dying_ = true; }
  /// `name`: the invariant's.
  void complain(const std::string& name, const std::string& text);

 protected:
  // What the script decides.
  virtual Treatment treatmentOf(const kit::Request& request) = 0;
  /// The keys that a misbehaving service may name.
  virtual std::span<const int64_t> otherKeys() const { return {}; }
  /// How long the disk of the process that starts takes to sync.
  virtual double drawSyncSeconds() = 0;
  virtual void processStarted() {}
  /// A call of the disk that changes something, before it is made.
  virtual void diskCalled(const simulation::DiskCall&) {}

  // Processes and their ends.
  void needProcess();
  void die(RunEnd end, const simulation::DiskCut& cut);
  void endInOrder();
  void letANewerProgramUseTheStore();
  void takeTheStoreBack();

  // Time.
  double now() const { return machine_.loop.monotonicSeconds(); }
  bool isCut() const { return flaky_disk_.disk.isCut(); }
  /// Nothing more is to happen: the disk is cut off, or an exception ended the process.
  bool isOver() const { return isCut() || is_dying_; }
  void advance(double seconds);
  void turn(uint64_t most_turns);

  /// Of the flush of the store that is under way: with no commit held off.
  bool isBeforeFirstSync() const { return is_before_first_sync_; }
  void noteFirstSync() { is_before_first_sync_ = false; }
  /// Has the tracker and the invariants look at everything.
  void check();
  /// Nothing goes wrong any more.
  void makeHealthy();
  /// At the end of some sessions in which nothing went wrong: what waits has gone out.
  void checkHealthyEnd();
  /// Counts what became of the records, and ends the process.
  void end();
  void note(std::string_view what);
  void trace(std::string_view before, std::string_view what);

  const DriverOptions options_;
  simulation::Dice dice_;
  RunSabotage sabotage_;
  FlakyDisk flaky_disk_;
  WatchedMachine machine_;
  simulation::VirtualService service_{[this] { return machine_.loop.now(); }, 0};
  simulation::VirtualService reader_{[this] { return machine_.loop.now(); }, 0};
  Tracker tracker_{*reader_, [this](std::function<void()> block) { whenCommitted(std::move(block)); }};
  StartOptions app_;
  std::unique_ptr<runtime::Instance> process_;
  bool is_healthy_ = false;
  bool is_dying_ = false;  ///< of an exception
  bool is_active_ = false;
  Transcript transcript_;
  RunFigures figures_;
  /// "invariant: what", at most kMaxRunComplaints.
  std::vector<std::string> complaints_;
  std::map<std::string, uint64_t> complaint_counts_;  ///< by invariant; of all complaints

 private:
  simulation::VirtualMachineOptions machineOptions();
  Tracker::Read reader() const;
  template <class Event>
  void tell(const Event& event) {
    for (const auto& invariant : invariants_)
      event(*invariant);
  }

  void prepareStart();
  void noteStart();
  void noteEnd(double undone_from, bool power_lost);
  double undoneFrom(bool power_lost) const;
  double unsyncedFrom() const;

  /// Runs once what the running turn wrote is committed; at once between turns.
  void whenCommitted(std::function<void()> block);
  /// Brings the facts up to date for something that is observed. False: what happens now does not count.
  bool tryObserve();
  void noteRecovery();
  void requestStarts(uint64_t exchange, const kit::Request& request) override;
  void handlerBegins(uint64_t exchange, const kit::TransportOutcome& outcome) override;
  void handlerEnded(uint64_t exchange) override;
  void valueSet(std::string_view key, const kit::Value& value) override;
  void blockPostponed(double delay_seconds) override;
  void storeSays(std::string_view line) override;
  void flushBegins() override { is_before_first_sync_ = true; }
  void flushEnded() override { is_before_first_sync_ = false; }
  void lineLogged(std::string_view line);
  void writeLate(double since);
  void diskChanges(const simulation::DiskCall& call);

  void requestLeaves(const kit::Request& request);
  testing::Answer serve(const kit::Request& request);
  void noteInstalls();

  bool mayDeliverAll() const;
  void countRecord(const ExpectedRecord& record);
  void checkProcess();
  void lookAtTheWithdrawal();
  void lookAtTheWishFile();
  void traceLedger(const Ledger& ledger);

  const std::vector<std::unique_ptr<Invariant>> invariants_;
  bool is_starting_ = false;
  bool is_stopping_ = false;
  bool is_before_first_sync_ = false;
  bool is_unsettled_ = false;
  kit::Value name_while_unavailable_;  ///< of the install, for the time being
  bool has_recovered_ = false;         ///< what the store holds, a moment ago
  bool is_wish_in_doubt_ = false;
  double wish_in_file_from_ = kNever;
  double wish_kept_from_ = 0;
  bool is_withdrawal_pending_ = false;  ///< not known yet to be in both homes
  double withdrawn_from_ = kNever;
  double sync_seconds_ = 0;  ///< that the disk takes, as the run counts with it
  double made_device_at_ = kNever;
  size_t other_devices_ = 0;                        ///< installs of devices that a death undid
  std::optional<double> trouble_since_;             ///< of the disk, as the store told it
  std::map<std::string, std::string> newer_store_;  ///< its files as the newer program left them
  std::vector<std::function<void()>> committed_at_start_;
  const RunExchange* leaving_ = nullptr;
  std::map<std::string, std::string> traced_accounts_;  ///< by kind, as they were traced last
};

}  // namespace morvik::proofs
