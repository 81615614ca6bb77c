#include "apps/device/scenario/scripted_service.h"

#include <algorithm>
#include <utility>

#include "apps/device/scenario/pattern.h"
#include "apps/device/scenario/request_text.h"
#include "services/json_writer.h"

namespace morvik_device::scenario {
namespace {

namespace kit = morvik::kit;
using morvik::testing::Answer;
using morvik::testing::ServiceEndpoint;
using morvik::testing::SimulatedService;

constexpr size_t kShownAnswerBytes = 140;
constexpr int kOk = 200;
constexpr int kFirstBadStatus = 300;
constexpr const char* kUnreachable = "the network is unreachable";
constexpr const char* kBroken = "the connection was closed";

// Where nothing is said, the keys are those that the reader gives a device.
morvik::testing::ServiceKeys keysOf(const morvik::StartOptions& options) {
  return {options.app_key.text(), options.hash_key.text(), options.tracking_key.text()};
}

/// Overrides members, recursively in nested objects.
kit::Value laidOver(const kit::Value& below, const kit::Value& above) {
  if (!below.isDictionary() || !above.isDictionary())
    return above;
  kit::MutableDictionary both(below);
  for (const kit::Entry& member : above.dictionary())
    both.set(member.key, laidOver(below[member.key.string()], member.value));
  return kit::Value(std::move(both));
}

}  // namespace

ScriptedService::ScriptedService(const Scenario& scenario, uint64_t seed, morvik::testing::VirtualLoop& loop,
                                 std::function<int64_t()> now_milliseconds, History& history, Observer& observer)
    : scenario_(scenario),
      loop_(loop),
      now_milliseconds_(std::move(now_milliseconds)),
      history_(history),
      observer_(observer),
      dice_(seed),
      service_(
          {cipher_, compressor_, sealing_random_}, keysOf(scenario.device.start), [this] { return now(); }, kMaxKept) {
  service_.setAttribution(scenario.service.attribution.dictionary());
  service_.setPremiumPostback(scenario.service.premium_postback);
  if (!scenario.service.schedule.isAbsent())
    service_.setSchedule(scenario.service.schedule.dictionary(), "schedule-of-the-story");
}

kit::Date ScriptedService::now() const {
  const int64_t milliseconds = now_milliseconds_() + scenario_.service.clock_ahead_milliseconds;
  return scenario_.start.shiftedBySeconds(static_cast<double>(milliseconds) / kMillisecondsPerSecond);
}

void ScriptedService::setPhase(const NetworkPhase* phase) {
  phase_ = phase;
}

AnswerRule ScriptedService::nextRule(std::optional<ServiceEndpoint> endpoint) {
  AnswerRule usual;
  usual.counted = true;
  usual.delay = scenario_.service.delay.value_or(kDefaultDelay);
  if (!endpoint)
    return usual;
  const auto& rules = scenario_.service.rules[static_cast<size_t>(*endpoint)];
  Position& position = positions_[static_cast<size_t>(*endpoint)];
  while (position.rule < rules.size()) {
    const AnswerRule& rule = rules[position.rule];
    if (!rule.always && position.given == rule.times) {
      position = {position.rule + 1, 0};
      continue;
    }
    position.given += rule.always ? 0 : 1;
    if (rule.chance >= 1.0 || dice_.happens(rule.chance))
      return rule;
    break;
  }
  return usual;
}

int64_t ScriptedService::chosen(TimeRange range) {
  const int64_t width = range.most_milliseconds - range.least_milliseconds;
  if (width == 0)
    return range.least_milliseconds;
  return range.least_milliseconds + static_cast<int64_t>(dice_.below(static_cast<uint64_t>(width) + 1));
}

// ---------------------------------------------------------------------------------------------------------- a request

Answer ScriptedService::answer(const kit::Request& request) {
  const bool is_reached = phase_ == nullptr;
  const AnswerRule rule = is_reached ? nextRule(morvik::testing::endpointOf(request.url)) : AnswerRule{};
  const ServedRequest served = receive(request, rule);
  const bool is_received = is_reached && rule.kind != AnswerRule::Kind::kDropBefore;
  noteRequest(served, request, is_received);
  Outcome outcome = is_reached ? outcomeOf(rule, served) : outcomeOfPhase();
  outcome.delay_milliseconds = is_reached ? chosen(rule.delay) : 0;
  Answer answer = outcome.answer.after(static_cast<double>(outcome.delay_milliseconds) / kMillisecondsPerSecond);
  noteAnswer(std::move(outcome), endpointText(served), request);
  return answer;
}

// What never reaches the service is opened all the same, for the account of what the device sent.
ScriptedService::ServedRequest ScriptedService::receive(const kit::Request& request, const AnswerRule& rule) {
  const auto counting =
      rule.counted && phase_ == nullptr ? SimulatedService::Counting::kYes : SimulatedService::Counting::kNo;
  ServedRequest served = service_.receive(request, counting);
  if (rule.twice)
    service_.receive(request, counting);
  return served;
}

void ScriptedService::noteRequest(const ServedRequest& served, const kit::Request& request, bool is_received) {
  const std::string name = endpointText(served);
  if (served.endpoint)
    history_.requests.add({now_milliseconds_(), *served.endpoint, served.payload});
  kit::MutableDictionary fields(kit::Dictionary{{"endpoint", name},
                                                {"method", request.method},
                                                {"received", is_received},
                                                {"counted", served.counted},
                                                {"events_new", static_cast<int64_t>(served.events_new)},
                                                {"events_again", static_cast<int64_t>(served.events_again)}});
  fields.set("payload", served.payload.isAbsent() ? kit::Value::null() : served.payload);
  if (served.refusal)
    fields.set("refusal", *served.refusal);
  const std::string said = requestText(served);
  observer_.happened({.at_milliseconds = now_milliseconds_(),
                      .kind = Happening::Kind::kRequest,
                      .is_trouble = served.refusal.has_value(),
                      .text = name + (said.empty() ? "" : "  " + said),
                      .fields = kit::Value(std::move(fields)).dictionary()});
}

// Recorded when it arrives; a process that dies before never sees it.
void ScriptedService::noteAnswer(Outcome outcome, const std::string& name, const kit::Request& request) {
  const double timeout_seconds = request.timeout_seconds.value_or(morvik::testing::kDefaultTimeoutSeconds);
  const double delay_seconds = static_cast<double>(outcome.delay_milliseconds) / kMillisecondsPerSecond;
  const bool is_late = outcome.never || delay_seconds > timeout_seconds;
  if (is_late) {
    const auto timeout_milliseconds = static_cast<int64_t>(timeout_seconds * kMillisecondsPerSecond);
    outcome = failure("no answer within " + durationText(timeout_milliseconds));
  }
  kit::MutableDictionary fields(kit::Dictionary{{"endpoint", name}});
  for (const kit::Entry& field : outcome.fields.entries())
    fields.set(field.key, field.value);
  loop_.mainQueue().after(is_late ? timeout_seconds : delay_seconds,
                          [this, process = process_, name, text = std::move(outcome.text),
                           is_trouble = outcome.is_trouble, all = kit::Value(std::move(fields))] {
                            if (process != process_)
                              return;
                            observer_.happened({.at_milliseconds = now_milliseconds_(),
                                                .kind = Happening::Kind::kAnswer,
                                                .is_trouble = is_trouble,
                                                .text = name + "  " + text,
                                                .fields = all.dictionary()});
                          });
}

// ----------------------------------------------------------------------------------------------------------- outcomes

ScriptedService::Outcome ScriptedService::failure(const std::string& error) {
  Outcome outcome;
  outcome.answer = Answer::error(error);
  outcome.text = error;
  outcome.fields.set("error", error);
  outcome.is_trouble = true;
  return outcome;
}

ScriptedService::Outcome ScriptedService::bodyOutcome(int status, const std::string& body) {
  Outcome outcome;
  outcome.answer = Answer::body(status, body);
  outcome.text = shortened(std::to_string(status) + " " + body, kShownAnswerBytes);
  std::replace(outcome.text.begin(), outcome.text.end(), '\n', ' ');
  outcome.fields.set("status", status);
  outcome.fields.set("body", body);
  outcome.is_trouble = status >= kFirstBadStatus;
  return outcome;
}

ScriptedService::Outcome ScriptedService::outcomeOfPhase() const {
  switch (phase_->kind) {
    case NetworkPhase::Kind::kOffline:
      break;
    case NetworkPhase::Kind::kDead: {
      Outcome outcome;
      outcome.answer = Answer::silence();
      outcome.never = true;
      return outcome;
    }
    case NetworkPhase::Kind::kPortal: {
      Outcome outcome = bodyOutcome(kOk, phase_->text);
      outcome.is_trouble = true;
      return outcome;
    }
  }
  return failure(kUnreachable);
}

ScriptedService::Outcome ScriptedService::outcomeOf(const AnswerRule& rule, const ServedRequest& served) {
  switch (rule.kind) {
    case AnswerRule::Kind::kUsual:
      return usualOutcome(rule, served);
    case AnswerRule::Kind::kText:
      return bodyOutcome(rule.status, rule.text);
    case AnswerRule::Kind::kSilence: {
      Outcome outcome;
      outcome.answer = Answer::silence();
      outcome.never = true;
      return outcome;
    }
    case AnswerRule::Kind::kDropBefore:
    case AnswerRule::Kind::kDropAfter:
      break;
  }
  return failure(kBroken);
}

ScriptedService::Outcome ScriptedService::usualOutcome(const AnswerRule& rule, const ServedRequest& served) {
  const morvik::testing::UsualAnswer usual = service_.usualAnswer(served);
  const kit::Value json = rule.json.isAbsent() ? usual.json : laidOver(usual.json, rule.json);
  std::string body;
  morvik::services::appendJsonDescription(json, body);
  return bodyOutcome(usual.status, body);
}

}  // namespace morvik_device::scenario
