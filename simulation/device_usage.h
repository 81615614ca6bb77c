// The life of one device: days of use, offline phases, faults of network and service, deaths of the process; and the
// account of what its app recorded.
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

/// How often what goes wrong does. Probabilities.
struct UsageTroubles {
  double offline_phase_a_day = 0.05;  ///< one begins: an hour to three days without network
  double death_in_background = 0.3;   ///< after a session the system ends the process
  double death_in_session = 0.01;     ///< the process dies in the middle of what it does
  double clock_change_a_day = 0.01;   ///< the wall clock is set, by up to a day
  double quick_return = 0.05;         ///< the user is back within the half second after a session's end
  // Of a request.
  double refused_by_status = 0.03;
  double lost_before_it_arrived = 0.02;
  double answer_lost = 0.02;     ///< the service took it in, and nobody says so
  double garbage_answer = 0.01;  ///< the same, and the answer is no JSON
  double no_answer = 0.005;      ///< nothing ever comes
  double slow = 0.1;             ///< the answer takes up to twenty seconds

  static UsageTroubles none();
};

struct UsageOptions {
  uint64_t seed = 1;
  /// Names the device; stands in what its app records.
  uint64_t number = 0;
  double sessions_a_day = 3;
  double events_a_day = 10;
  UsageTroubles troubles;
  /// When it begins.
  kit::Date begins = kit::Date::fromSeconds(1'709'251'200);
};

/// What became of the events that the app recorded. Every event is told apart, so that one delivered twice does not
/// make up for one that was lost.
struct UsageTotals {
  uint64_t recorded = 0;
  uint64_t delivered = 0;         ///< counted by the service, each once
  uint64_t stored = 0;            ///< and not delivered
  uint64_t given_up_by_rule = 0;  ///< see docs/guarantees.md: in a batch that left while another was under way
  uint64_t lost = 0;              ///< none of these
  uint64_t arrived_again = 0;     ///< arrivals of events that had arrived before
  /// How often the device's own ledger did not balance, gave up what no rule gives up, or contradicted the service.
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
  uint64_t faults = 0;  ///< answers that were spoiled

  UsageCounts& operator+=(const UsageCounts& other);
};

/// Of one thread; lives of different threads may share a service.
class DeviceUsage {
 public:
  /// `service` outlives the life.
  DeviceUsage(UsageOptions options, testing::SimulatedService& service);
  ~DeviceUsage();
  DeviceUsage(const DeviceUsage&) = delete;
  DeviceUsage& operator=(const DeviceUsage&) = delete;

  void useOneDay();
  /// Two sessions with a good network and a service in good order: what still waits goes out.
  void playHealthyEnd();

  /// The device itself, for those who want to make its life harder.
  VirtualMachine& machine() { return machine_; }

  UsageTotals totals() const;
  const UsageCounts& counts() const { return counts_; }
  /// What the device says of itself; its process is started if it has none.
  Ledger ledger();
  /// The first events that are lost, by the name that the app gave them; empty when the account balances.
  std::vector<std::string> lostEvents(size_t limit) const;

  /// Time as it is, whatever the device's clock says: what a service's clock shows.
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
  std::vector<uint8_t> events_;  ///< by number, what is known of each
  uint64_t arrived_again_ = 0;
  uint64_t arrived_ = 0;  ///< counted by the service, each once, the core's own among them
  uint64_t ledger_faults_ = 0;
  bool is_healthy_ = false;
  double offline_until_seconds_ = 0;          ///< monotonic
  double batch_under_way_until_seconds_ = 0;  ///< monotonic
  double began_seconds_ = 0;                  ///< monotonic
};

}  // namespace morvik::simulation
