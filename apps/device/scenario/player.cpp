#include "apps/device/scenario/player.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>
#include <variant>

#include "apps/device/scenario/pattern.h"
#include "apps/device/scenario/request_text.h"
#include "apps/device/stored_ledger.h"
#include "services/log.h"

namespace morvik_device::scenario {
namespace {

namespace kit = morvik::kit;
using Kind = Happening::Kind;

/// Time advances in steps of at most an hour, so that the progress bar moves.
constexpr int64_t kPieceMilliseconds = 3'600'000;
/// The level shown for lines that are written regardless of the log level.
constexpr int kLevelOfPlainLines = 3;
constexpr size_t kShownLineBytes = 200;

morvik::simulation::VirtualMachineOptions machineOptions(const Scenario& scenario, uint64_t seed) {
  morvik::simulation::VirtualMachineOptions options;
  options.loop.wall_clock = scenario.start;
  options.seed = seed;
  return options;
}

int levelOf(const morvik::testing::LogLine& line) {
  if (!line.prefix)
    return kLevelOfPlainLines;
  const auto& headers = morvik::services::_kesmo_lcl_level_header_1;
  const auto* found = std::find(std::begin(headers), std::end(headers), line.prefix->level);
  return found == std::end(headers) ? kLevelOfPlainLines : static_cast<int>(found - std::begin(headers));
}

// What the kit refuses says so itself.
std::string refusalText(const std::string& refusal) {
  constexpr std::string_view kRefused = "refused: ";
  return refusal.starts_with(kRefused) ? refusal : std::string(kRefused) + refusal;
}

const char* phaseText(const NetworkPhase* phase) {
  if (phase == nullptr)
    return "in good order";
  switch (phase->kind) {
    case NetworkPhase::Kind::kOffline:
      return "offline";
    case NetworkPhase::Kind::kDead:
      return "dead: nothing answers";
    case NetworkPhase::Kind::kPortal:
      break;
  }
  return "a captive portal answers";
}

}  // namespace

Player::Player(const Scenario& scenario, uint64_t seed, Timeline& timeline, ProgressBar& progress)
    : scenario_(scenario),
      timeline_(timeline),
      progress_(progress),
      machine_(machineOptions(scenario, seed)),
      first_second_(machine_.loop.monotonicSeconds()),
      service_(
          scenario, seed, machine_.loop, [this] { return nowMilliseconds(); }, history_, timeline),
      sessions_(machine_.store, [this](SessionWatch::Event event) { tookSession(event); }),
      output_([this](const kit::Value& line) { took(line); }) {
  machine_.transport.on("").alwaysBy([this](const kit::Request& request) { return service_.answer(request); });
  machine_.loop.addCommit([this] { sessions_.look(machine_.loop.now()); });
}

Player::~Player() {
  if (phone_)
    machine_.kill(phone_->releaseInstance());
}

int64_t Player::nowMilliseconds() const {
  return std::llround((machine_.loop.monotonicSeconds() - first_second_) * kMillisecondsPerSecond);
}

bool Player::play() {
  timeline_.begin(scenario_);
  for (const Step& step : scenario_.steps) {
    perform(step);
    if (!assessAll(step.expectations))
      return false;
  }
  advanceThroughPhases(scenario_.lastMillisecond());
  if (!assessAll(scenario_.expectations))
    return false;
  if (!ledger().isSound())  // whatever the scenario expects
    throw std::runtime_error("the device's ledger is not sound; expect \"ledger: sound\" to see where, and report it");
  timeline_.end(met_, false);
  return true;
}

// ---------------------------------------------------------------------------------------------------------------- time

void Player::advanceTo(int64_t milliseconds) {
  for (int64_t now = nowMilliseconds(); now < milliseconds; now = nowMilliseconds()) {
    const int64_t piece = std::min(kPieceMilliseconds, milliseconds - now);
    machine_.loop.advance(static_cast<double>(piece) / kMillisecondsPerSecond);
    progress_.show(static_cast<uint64_t>(now + piece), static_cast<uint64_t>(scenario_.lastMillisecond()));
  }
}

void Player::advanceThroughPhases(int64_t milliseconds) {
  const auto& phases = scenario_.network;
  for (;;) {
    if (phase_ != nullptr && phase_->to_milliseconds <= milliseconds) {
      advanceTo(phase_->to_milliseconds);
      const bool next_begins_at_once =
          next_phase_ < phases.size() && phases[next_phase_].from_milliseconds == phase_->to_milliseconds;
      setPhase(next_begins_at_once ? &phases[next_phase_++] : nullptr);
    } else if (phase_ == nullptr && next_phase_ < phases.size() &&
               phases[next_phase_].from_milliseconds <= milliseconds) {
      advanceTo(phases[next_phase_].from_milliseconds);
      setPhase(&phases[next_phase_++]);
    } else {
      break;
    }
  }
  advanceTo(milliseconds);
}

void Player::setPhase(const NetworkPhase* phase) {
  phase_ = phase;
  service_.setPhase(phase);
  machine_.setOffline(service_.isOffline());
  tell(Kind::kNetwork, phaseText(phase), {{"network", phaseText(phase)}}, phase != nullptr);
}

// --------------------------------------------------------------------------------------------------------------- verbs

void Player::perform(const Step& step) {
  for (size_t round = 0; round < step.repeat; ++round) {
    advanceThroughPhases(step.at_milliseconds + static_cast<int64_t>(round) * step.every_milliseconds);
    for (const StepVerb& verb : step.verbs)
      perform(verb);
  }
}

void Player::perform(const StepVerb& verb) {
  const std::string_view name = verb.command.verb->name;
  if (!phone_)
    startProcess();
  tell(Kind::kApp, shortened(verb.text, kShownLineBytes), {{"verb", verb.text}});
  if (name == "kill")
    killProcess("killed");
  else if (name == "crash")
    crash(verb.command.arguments.words[0]);
  else if (name == "quit")
    stopProcess(verb.command.arguments.seconds);
  else if (name == "erase")
    eraseProcess();
  else
    act(verb);
}

void Player::act(const StepVerb& verb) {
  bool replied = false;
  const auto reply = [this, &replied](const Outcome& outcome) {
    replied = true;
    if (outcome.refusal)
      tell(Kind::kRefused, refusalText(*outcome.refusal), {{"error", *outcome.refusal}}, true);
  };
  phone_->instance().mainQueue().async(
      [this, &verb, reply] { verb.command.verb->act(*phone_, verb.command.arguments, reply); });
  machine_.loop.runUntilIdle();
  if (!replied)
    throw std::runtime_error("the verb \"" + verb.text + "\" did not come to its end");
}

// Nothing really crashes here: what the process leaves behind when it does, is left behind.
void Player::crash(const std::string& reason) {
  phone_->instance().reportUncaughtException({.reason = reason, .call_stack_symbols = {}, .moment = std::nullopt});
  killProcess("crashed: " + reason);
}

void Player::startProcess() {
  tell(Kind::kProcess, "started", {{"event", "started"}});
  Options options = scenario_.device;
  options.start.log_sink = [this](std::string_view line) { tookLine(line); };
  auto started = Phone::start(options, output_, machine_, machine_);
  if (const auto* problem = std::get_if<std::string>(&started))
    throw std::runtime_error(*problem);
  phone_ = std::move(std::get<std::unique_ptr<Phone>>(started));
  machine_.setOffline(service_.isOffline());
  machine_.loop.runUntilIdle();
}

void Player::killProcess(const std::string& text) {
  tell(Kind::kProcess, shortened(text, kShownLineBytes), {{"event", text}}, true);
  machine_.kill(phone_->releaseInstance());
  phone_.reset();
  service_.processEnded();
}

// With seconds to drain, time passes here; what the network is meanwhile is what it was.
void Player::stopProcess(std::optional<double> drain_seconds) {
  if (drain_seconds)
    phone_->instance().stop(millisecondsOf(*drain_seconds));
  else
    phone_->instance().stop();
  phone_.reset();
  service_.processEnded();
  tell(Kind::kProcess, "stopped", {{"event", "stopped"}});
}

void Player::eraseProcess() {
  if (!phone_->instance().eraseLocalData())
    throw std::runtime_error("not all was erased");
  phone_.reset();
  service_.processEnded();
  tell(Kind::kProcess, "erased", {{"event", "erased"}});
}

// -------------------------------------------------------------------------------------------------------- expectations

bool Player::assessAll(const std::vector<Expectation>& expectations) {
  const Evidence evidence{.history = history_,
                          .events = [this] { return service_.events(); },
                          .event_count = [this] { return service_.distinctEvents(); },
                          .stored = [this](const std::string& property) { return stored(property); },
                          .ledger = [this] { return ledger(); }};
  for (const Expectation& expectation : expectations) {
    const Verdict verdict = assess(expectation, evidence);
    timeline_.assessed(nowMilliseconds(), expectation, verdict);
    if (!verdict.met) {
      timeline_.end(met_, true);
      return false;
    }
    ++met_;
  }
  return true;
}

morvik::Ledger Player::ledger() {
  return phone_ ? phone_->instance().ledger() : storedLedger(machine_.store);
}

kit::Value Player::stored(const std::string& property) {
  const StoreView view(morvik::services::MorvikGVUserDefaults(machine_.store, list_lock_),
                       [this](std::string_view key) { return machine_.store.get(key); });
  std::optional<std::string> unknown;
  return view.show({property}, unknown)[property];
}

// ------------------------------------------------------------------------------------------------------- what happened

void Player::tell(Kind kind, std::string text, kit::Dictionary fields, bool is_trouble) {
  timeline_.happened({.at_milliseconds = nowMilliseconds(),
                      .kind = kind,
                      .is_trouble = is_trouble,
                      .text = std::move(text),
                      .fields = std::move(fields)});
}

// A call of a delegate or a module, as the program writes it.
void Player::took(const kit::Value& line) {
  DelegateCall call{.at_milliseconds = nowMilliseconds(),
                    .selector = std::string(line["callback"].string()),
                    .module = std::string(line["module"].string()),
                    .arguments = line["args"].array()};
  std::string text = (call.module.empty() ? "" : call.module + " ") + call.selector;
  for (const kit::Value& argument : call.arguments)
    text += "  " + shortText(argument);
  kit::MutableDictionary fields(kit::Dictionary{{"selector", call.selector}, {"args", line["args"]}});
  if (!call.module.empty())
    fields.set("module", call.module);
  tell(Kind::kCallback, std::move(text), kit::Value(std::move(fields)).dictionary());
  history_.calls.add(std::move(call));
}

void Player::tookLine(std::string_view text) {
  const morvik::testing::LogLine line = morvik::testing::splitLogLine(text);
  const int level = levelOf(line);
  if (level <= scenario_.shown_log_level) {
    tell(Kind::kLog, shortened(line.message, kShownLineBytes), {{"level", level}, {"line", line.text}},
         level <= kit::lcl_vError);
  }
  history_.lines.add({nowMilliseconds(), level, line});
}

void Player::tookSession(SessionWatch::Event event) {
  switch (event) {
    case SessionWatch::Event::kBegun:
      return tell(Kind::kSession, "begins", {{"session", "begins"}});
    case SessionWatch::Event::kKept:
      return tell(Kind::kSession, "goes on: the last one is kept", {{"session", "kept"}});
    case SessionWatch::Event::kEnded:
      return tell(Kind::kSession, "ends", {{"session", "ends"}});
  }
}

}  // namespace morvik_device::scenario
