#include "simulation/device_usage.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>
#include <utility>

#include "kit/notifications.h"
#include "simulation/durations.h"

namespace morvik::simulation {
namespace {

using testing::Answer;
using testing::ServedRequest;
using testing::SimulatedService;

/// How long a user is awake; nothing starts so late that it would reach into the next day.
constexpr double kWakingSeconds = 16 * kHourSeconds;
constexpr double kLongestSessionSeconds = 20 * 60;
constexpr double kDefaultTimeoutSeconds = 60;

VirtualMachineOptions machineOptions(const UsageOptions& options) {
  VirtualMachineOptions of_machine;
  of_machine.seed = options.seed;
  of_machine.loop.wall_clock = options.begins;
  return of_machine;
}

std::string eventName(uint64_t device, size_t event) {
  return "device " + std::to_string(device) + " event " + std::to_string(event);
}

/// The number of one of the app's events; nothing for the core's own.
std::optional<size_t> eventNumber(const kit::Value& param) {
  constexpr std::string_view kMark = " event ";
  const std::string_view text = param.string();
  const size_t mark = text.find(kMark);
  if (mark == std::string_view::npos)
    return std::nullopt;
  size_t number = 0;
  const std::string_view digits = text.substr(mark + kMark.size());
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

}  // namespace

UsageTroubles UsageTroubles::none() {
  UsageTroubles none;
  none.offline_phase_a_day = none.death_in_background = none.death_in_session = none.clock_change_a_day = 0;
  none.quick_return = none.refused_by_status = none.lost_before_it_arrived = none.answer_lost = 0;
  none.garbage_answer = none.no_answer = none.slow = 0;
  return none;
}

UsageTotals& UsageTotals::operator+=(const UsageTotals& other) {
  recorded += other.recorded;
  delivered += other.delivered;
  stored += other.stored;
  given_up_by_rule += other.given_up_by_rule;
  lost += other.lost;
  arrived_again += other.arrived_again;
  ledger_faults += other.ledger_faults;
  return *this;
}

UsageCounts& UsageCounts::operator+=(const UsageCounts& other) {
  days += other.days;
  sessions += other.sessions;
  requests += other.requests;
  deaths += other.deaths;
  offline_phases += other.offline_phases;
  faults += other.faults;
  return *this;
}

DeviceUsage::DeviceUsage(UsageOptions options, SimulatedService& service)
    : options_(options), dice_(options.seed), service_(service), machine_(machineOptions(options)) {
  began_seconds_ = machine_.loop.monotonicSeconds();
  machine_.transport.on("").alwaysBy([this](const kit::Request& request) { return serve(request); });
  machine_.transport.setObserver([this](const kit::Request&) { ++counts_.requests; });
}

DeviceUsage::~DeviceUsage() = default;

kit::Date DeviceUsage::trueTime() const {
  return options_.begins.shiftedBySeconds(machine_.loop.monotonicSeconds() - began_seconds_);
}

// ------------------------------------------------------------------------------------------------------------- living

void DeviceUsage::useOneDay() {
  const double day_began = machine_.loop.monotonicSeconds();
  const UsageTroubles& troubles = options_.troubles;
  if (dice_.happens(troubles.offline_phase_a_day))
    beginOfflinePhase();
  if (dice_.happens(troubles.clock_change_a_day))
    machine_.loop.moveWallClock(dice_.between(-kDaySeconds, kDaySeconds));
  std::set<double> starts;
  for (uint64_t sessions = dice_.around(options_.sessions_a_day); sessions > 0; --sessions)
    starts.insert(dice_.between(0, kWakingSeconds - kLongestSessionSeconds));
  const double events_a_session = options_.events_a_day / options_.sessions_a_day;
  for (const double start : starts) {
    live(std::max(0.0, day_began + start - machine_.loop.monotonicSeconds()));
    useOnce(dice_.around(events_a_session));
  }
  live(std::max(0.0, day_began + kDaySeconds - machine_.loop.monotonicSeconds()));
  ++counts_.days;
  // Nobody needs what the fakes recorded on a day, and in a long run it would use most of the memory.
  machine_.transport.clearRequests();
  machine_.store.clearJournal();
}

void DeviceUsage::playHealthyEnd() {
  is_healthy_ = true;
  offline_until_seconds_ = 0;
  machine_.transport.goOnline();
  for (int session = 0; session < 2; ++session) {
    live(kHourSeconds);
    useOnce(0);
  }
}

/// Time passes; a network that was down may be back.
void DeviceUsage::live(double seconds) {
  const double now = machine_.loop.monotonicSeconds();
  if (offline_until_seconds_ > now && offline_until_seconds_ <= now + seconds) {
    const double offline = offline_until_seconds_ - now;
    machine_.loop.advance(offline);
    machine_.transport.goOnline();
    seconds -= offline;
  }
  machine_.loop.advance(seconds);
}

void DeviceUsage::beginOfflinePhase() {
  ++counts_.offline_phases;
  offline_until_seconds_ = machine_.loop.monotonicSeconds() + dice_.between(kHourSeconds, 3 * kDaySeconds);
  machine_.transport.goOffline();
}

void DeviceUsage::needProcess() {
  if (process_)
    return;
  process_ = machine_.start(simulatedApp());
  checkLedger();
}

void DeviceUsage::die() {
  machine_.kill(std::move(process_));
  process_ = nullptr;
  batch_under_way_until_seconds_ = 0;  // no process is left to handle its answer
  ++counts_.deaths;
}

void DeviceUsage::useOnce(uint64_t events) {
  ++counts_.sessions;
  needProcess();
  process_->applicationDidBecomeActive();
  machine_.loop.runUntilIdle();
  const bool will_die = !is_healthy_ && dice_.happens(options_.troubles.death_in_session);
  const double pause = dice_.between(5, kLongestSessionSeconds) / static_cast<double>(events + 1);
  for (uint64_t event = 0; event < events; ++event) {
    live(pause);
    record();
  }
  live(pause);
  if (will_die)
    return dieInTheMiddle();
  leave();
  checkLedger();
  if (!is_healthy_ && dice_.happens(options_.troubles.death_in_background))
    die();
}

void DeviceUsage::record() {
  const size_t number = events_.size();
  process_->addActivity("shop", dice_.happens(0.3) ? "purchase" : "look", eventName(options_.number, number));
  events_.push_back(kRecorded);
  machine_.loop.runUntilIdle();
}

void DeviceUsage::leave() {
  process_->applicationDidEnterBackground();
  machine_.loop.runUntilIdle();
  if (!is_healthy_ && dice_.happens(options_.troubles.quick_return)) {
    live(0.2);
    process_->applicationDidBecomeActive();
    live(2);
    process_->applicationDidEnterBackground();
    machine_.loop.runUntilIdle();
  }
  live(35);  // how long the system lets an app finish its work
}

/// Between two turns, just after an event was recorded, a session ended or a batch was handed over.
void DeviceUsage::dieInTheMiddle() {
  record();
  if (dice_.happens(0.5))
    process_->applicationDidEnterBackground();
  else
    process_->pushTracking();
  for (uint64_t turns = dice_.below(8); turns > 0; --turns)
    machine_.loop.step();
  die();
}

// ------------------------------------------------------------------------------------------------------------ serving

Answer DeviceUsage::serve(const kit::Request& request) {
  if (!is_healthy_)
    return serveInTrouble(request);
  const ServedRequest served = service_.receive(request);
  noteBatchLeft(served, 0);
  noteArrival(served);
  return service_.answer(served);
}

Answer DeviceUsage::serveInTrouble(const kit::Request& request) {
  const UsageTroubles& troubles = options_.troubles;
  const double delay = dice_.happens(troubles.slow) ? dice_.between(1, 20) : dice_.between(0.02, 0.4);
  const bool is_refused = dice_.happens(troubles.refused_by_status);
  const bool is_lost = !is_refused && dice_.happens(troubles.lost_before_it_arrived);
  const bool arrives = !is_refused && !is_lost;
  const ServedRequest served =
      service_.receive(request, arrives ? SimulatedService::Counting::kYes : SimulatedService::Counting::kNo);
  if (arrives)
    noteArrival(served);
  const bool is_silent = arrives && dice_.happens(troubles.no_answer);
  const double timeout = request.timeout_seconds.value_or(kDefaultTimeoutSeconds);
  noteBatchLeft(served, is_silent ? timeout : std::min(delay, timeout));
  ++counts_.faults;
  if (is_refused)
    return Answer::body(503, "out of order").after(delay);
  if (is_silent)
    return Answer::silence();
  if (is_lost || dice_.happens(troubles.answer_lost))
    return Answer::error("the connection was closed").after(delay);
  if (dice_.happens(troubles.garbage_answer))
    return Answer::body(200, "<html>sign in</html>").after(delay);
  --counts_.faults;
  return service_.answer(served).after(delay);
}

void DeviceUsage::noteArrival(const ServedRequest& served) {
  if (served.endpoint != testing::ServiceEndpoint::kTracking || !served.counted)
    return;
  arrived_ += served.events_new;
  arrived_again_ += served.events_again;
  for (const kit::Value& event : served.payload["activity_info"].array()) {
    if (const auto number = eventNumber(event["param"]); number && *number < events_.size())
      events_[*number] |= kDelivered;
  }
}

/// A session start frees the slot of a batch under way; the earlier batch's answer may then trim what the next one
/// carries.
void DeviceUsage::noteBatchLeft(const ServedRequest& served, double answered_after_seconds) {
  if (served.endpoint != testing::ServiceEndpoint::kTracking)
    return;
  const double now = machine_.loop.monotonicSeconds();
  if (now < batch_under_way_until_seconds_) {
    for (const kit::Value& event : served.payload["activity_info"].array()) {
      if (const auto number = eventNumber(event["param"]); number && *number < events_.size())
        events_[*number] |= kOverlapped;
    }
  }
  batch_under_way_until_seconds_ = std::max(batch_under_way_until_seconds_, now + answered_after_seconds);
}

// --------------------------------------------------------------------------------------------------------- accounting

Ledger DeviceUsage::ledger() {
  needProcess();
  return process_->ledger();
}

/// The device counts no more as delivered than arrived, and what arrived without its knowledge it still has or gave up.
void DeviceUsage::checkLedger() {
  const Ledger ledger = process_->ledger();
  const Ledger::Account activities = ledger.of("activities");
  const uint64_t elsewhere = activities.stored + activities.under_way + activities.givenUp();
  if (!ledger.isSound() || activities.delivered > arrived_ || arrived_ > activities.delivered + elsewhere)
    ++ledger_faults_;
}

std::vector<uint8_t> DeviceUsage::finalStates() const {
  std::vector<uint8_t> states = events_;
  const auto contents = machine_.store.contents();
  const auto activities = contents.find("fendoActivityInfos");
  if (activities == contents.end())
    return states;
  for (const kit::Value& activity : activities->second.array()) {
    if (const auto number = eventNumber(activity["activityParam"]); number && *number < states.size())
      states[*number] |= kStored;
  }
  return states;
}

UsageTotals DeviceUsage::totals() const {
  UsageTotals totals;
  for (const uint8_t state : finalStates()) {
    ++totals.recorded;
    if ((state & kDelivered) != 0)
      ++totals.delivered;
    else if ((state & kStored) != 0)
      ++totals.stored;
    else if ((state & kOverlapped) != 0)
      ++totals.given_up_by_rule;
    else
      ++totals.lost;
  }
  totals.arrived_again = arrived_again_;
  totals.ledger_faults = ledger_faults_;
  return totals;
}

std::vector<std::string> DeviceUsage::lostEvents(size_t limit) const {
  std::vector<std::string> lost;
  const std::vector<uint8_t> states = finalStates();
  for (size_t number = 0; number < states.size() && lost.size() < limit; ++number) {
    if (states[number] == kRecorded)
      lost.push_back(eventName(options_.number, number));
  }
  return lost;
}

}  // namespace morvik::simulation
