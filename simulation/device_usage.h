// A device in use: days of sessions, offline phases, faults of network and service, deaths of the process; and what
// became of every event that its app recorded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kit/date.h"
#include "morvik/ledger.h"
#include "morvik/start_options.h"
#include "runtime/instance.h"
#include "simulation/dice.h"
#include "simulation/virtual_machine.h"
#include "testing/simulated_service.h"

namespace morvik::simulation {

/// How often things go wrong. Probabilities.
struct UsageTroubles {
  double offline_phase_a_day = 0.05;  ///< a phase of an hour to three days without network starts
  double death_in_background = 0.3;   ///< the system ends the process after a session
  double death_in_session = 0.01;     ///< the process dies in the middle of its work
  double clock_change_a_day = 0.01;   ///< the wall clock is set, by up to a day
  double quick_return = 0.05;         ///< the user returns within the half second after a session's end
  // Per request.
  double refused_by_status = 0.03;
  double lost_before_it_arrived = 0.02;
  double answer_lost = 0.02;     ///< the service took it in, but the answer is lost
  double garbage_answer = 0.01;  ///< the same, but the answer is not JSON
  double no_answer = 0.005;      ///< no answer ever comes
  double slow = 0.1;             ///< the answer takes up to twenty seconds

  static UsageTroubles none();
};

struct UsageOptions {
  uint64_t seed = 1;
  /// Identifies the device; part of what its app records.
  uint64_t number = 0;
  double sessions_a_day = 3;
  double events_a_day = 10;
  UsageTroubles troubles;
  /// When it is switched on.
  kit::Date begins = kit::Date::fromSeconds(1'709'251'200);
};

/// What became of the events that the app recorded. Events are tracked one by one, so that one delivered twice does not
/// hide one that was lost.
struct UsageTotals {
  uint64_t recorded = 0;
  uint64_t delivered = 0;         ///< counted by the service, each once
  uint64_t stored = 0;            ///< and not delivered
  uint64_t given_up_by_rule = 0;  ///< see docs/guarantees.md: in a batch that left while another was under way
  uint64_t lost = 0;              ///< none of the above
  uint64_t arrived_again = 0;     ///< arrivals of events that had already arrived
  /// How often the device's own ledger did not balance, listed a removal that no rule allows, or contradicted the
  /// service.
  uint64_t ledger_faults = 0;

  bool balances() const { return lost == 0 && ledger_faults == 0 && recorded == delivered + stored + given_up_by_rule; }
  UsageTotals& operator+=(const UsageTotals& other);
};

/// What happened on the way.
struct UsageCounts {
  uint64_t days = 0;
  uint64_t sessions = 0;
  uint64_t requests = 0;
  uint64_t deaths = 0;
  uint64_t offline_phases = 0;
  uint64_t faults = 0;  ///< answers that were replaced or dropped

  UsageCounts& operator+=(const UsageCounts& other);
};

/// Use from one thread; devices of different threads may share a service.
class DeviceUsage {
 public:
  /// `service` must outlive this object.
  DeviceUsage(UsageOptions options, testing::SimulatedService& service);
  ~DeviceUsage();
  DeviceUsage(const DeviceUsage&) = delete;
  DeviceUsage& operator=(const DeviceUsage&) = delete;

  void useOneDay();
  /// Two sessions with a good network and a healthy service: what is pending is sent.
  void playHealthyEnd();

  /// The device itself, for tests that add faults.
  VirtualMachine& machine() { return machine_; }

  UsageTotals totals() const;
  const UsageCounts& counts() const { return counts_; }
  /// The device's own ledger; starts its process if none runs.
  Ledger ledger();
  /// The first lost events, by the names that the app gave them; empty if none is lost.
  std::vector<std::string> lostEvents(size_t limit) const;

  /// True time, whatever the device's clock says: what a service's clock shows.
  kit::Date trueTime() const;

 private:
  // What is known of an event, as bits.
  static constexpr uint8_t kRecorded = 0;
  static constexpr uint8_t kDelivered = 1;
  static constexpr uint8_t kOverlapped = 2;  ///< was in a batch that left while another was under way
  static constexpr uint8_t kStored = 4;

  void needProcess();
  void die();
  void live(double seconds);
  void beginOfflinePhase();
  void useOnce(uint64_t events);
  void record();
  void leave();
  void dieInTheMiddle();
  testing::Answer serve(const kit::Request& request);
  testing::Answer serveInTrouble(const kit::Request& request);
  void noteArrival(const testing::ServedRequest& served);
  void noteBatchLeft(const testing::ServedRequest& served, double answered_after_seconds);
  void checkLedger();
  std::vector<uint8_t> finalStates() const;

  const UsageOptions options_;
  Dice dice_;
  testing::SimulatedService& service_;
  VirtualMachine machine_;
  std::unique_ptr<runtime::Instance> process_;
  UsageCounts counts_;
  std::vector<uint8_t> events_;  ///< what is known of each, by number
  uint64_t arrived_again_ = 0;
  uint64_t arrived_ = 0;  ///< counted by the service, each once, including the core's own
  uint64_t ledger_faults_ = 0;
  bool is_healthy_ = false;
  double offline_until_seconds_ = 0;          ///< monotonic
  double batch_under_way_until_seconds_ = 0;  ///< monotonic
  double began_seconds_ = 0;                  ///< monotonic
};

}  // namespace morvik::simulation
