// What the service does.
#include <utility>

#include "apps/device/scenario/fields.h"
#include "apps/device/scenario/scenario_parts.h"

namespace morvik_device::scenario {
namespace {

using morvik::testing::kServiceEndpoints;
using morvik::testing::nameOf;

constexpr int kLeastStatus = 200;
constexpr int kMostStatus = 599;
constexpr int64_t kMostTimes = 1'000'000;

std::vector<std::string_view> endpointNames() {
  std::vector<std::string_view> names;
  for (const auto endpoint : kServiceEndpoints)
    names.push_back(nameOf(endpoint));
  return names;
}

AnswerRule::Kind dropKind(const YamlNode& node) {
  const std::string text = textOf(node, "drop");
  if (text == "before")
    return AnswerRule::Kind::kDropBefore;
  if (text == "after")
    return AnswerRule::Kind::kDropAfter;
  throw Mistake(node.place, "drop is \"" + text + "\"; expected before or after (the service has the request)");
}

void readUsual(const Fields& fields, AnswerRule& rule) {
  const YamlNode& node = *fields.find("usual");
  fields.refuse({"status"}, "expected \"json\" or \"text\" with a status");
  rule.kind = AnswerRule::Kind::kUsual;
  if (!node.isNull())
    rule.json = objectOf(node, "usual");
  rule.counted = true;
}

void readSilence(const Fields& fields, AnswerRule& rule) {
  const YamlNode& node = *fields.find("silence");
  if (!booleanOf(node, "silence"))
    throw Mistake(node.place, "silence is false; expected true, or another answer");
  fields.refuse({"status", "delay"}, "expected neither with \"silence\"");
  rule.kind = AnswerRule::Kind::kSilence;
}

void readDrop(const Fields& fields, AnswerRule& rule) {
  fields.refuse({"status"}, "expected none with \"drop\"");
  rule.kind = dropKind(*fields.find("drop"));
  rule.counted = rule.kind == AnswerRule::Kind::kDropAfter;
  if (rule.kind == AnswerRule::Kind::kDropBefore)
    fields.refuse({"counted", "twice"}, "the service never has the request; expected \"drop: after\"");
}

// What the answer is; how often and when is said by other fields.
void readContent(const Fields& fields, AnswerRule& rule) {
  const std::vector<std::string_view> kinds = {"usual", "json", "text", "drop", "silence"};
  const YamlNode* status = fields.find("status");
  bool is_alone = status != nullptr;
  for (const std::string_view kind : kinds)
    is_alone = is_alone && fields.find(kind) == nullptr;
  if (status != nullptr)
    rule.status = static_cast<int>(wholeNumberOf(*status, "status", kLeastStatus, kMostStatus));
  const std::string_view kind = is_alone ? "status" : fields.exactlyOne({"usual", "json", "text", "drop", "silence"});
  rule.kind = AnswerRule::Kind::kText;
  if (kind == "status")
    rule.text = "{}";
  else if (kind == "json")
    rule.text = jsonTextOf(*fields.find("json"));
  else if (kind == "text")
    rule.text = textOf(*fields.find("text"), "text");
  else if (kind == "usual")
    readUsual(fields, rule);
  else if (kind == "drop")
    readDrop(fields, rule);
  else
    readSilence(fields, rule);
}

void readRepetition(const Fields& fields, AnswerRule& rule) {
  const YamlNode* times = fields.find("times");
  const YamlNode* always = fields.find("always");
  if (times != nullptr && always != nullptr)
    throw Mistake(fields.placeOf("always"), "\"always\" cannot be combined with \"times\"; expected one of them");
  if (times != nullptr)
    rule.times = static_cast<size_t>(wholeNumberOf(*times, "times", 1, kMostTimes));
  if (always != nullptr)
    rule.always = booleanOf(*always, "always");
}

AnswerRule readRule(const YamlNode& node, const std::optional<TimeRange>& delay) {
  const Fields fields(
      node, "an answer",
      {"usual", "status", "json", "text", "drop", "silence", "times", "always", "chance", "delay", "counted", "twice"});
  AnswerRule rule;
  rule.place = node.place;
  rule.delay = delay.value_or(kDefaultDelay);
  readContent(fields, rule);
  readRepetition(fields, rule);
  if (const YamlNode* chance = fields.find("chance"))
    rule.chance = chanceOf(*chance, "chance");
  if (const YamlNode* own_delay = fields.find("delay"))
    rule.delay = timeRangeOf(*own_delay, "delay");
  if (const YamlNode* counted = fields.find("counted"))
    rule.counted = booleanOf(*counted, "counted");
  if (const YamlNode* twice = fields.find("twice"))
    rule.twice = booleanOf(*twice, "twice");
  return rule;
}

void readAnswers(const YamlNode& node, ServiceScript& script) {
  const Fields fields(node, "\"answers\"", endpointNames());
  size_t count = 0;
  for (const auto endpoint : kServiceEndpoints) {
    const YamlNode* rules = fields.find(nameOf(endpoint));
    if (rules == nullptr)
      continue;
    auto& of_endpoint = script.rules[static_cast<size_t>(endpoint)];
    for (const YamlNode* rule : oneOrMore(*rules, std::string(nameOf(endpoint)))) {
      if (!of_endpoint.empty() && of_endpoint.back().always)
        throw Mistake(rule->place,
                      "the answer above is given always, so this one never is; expected it to be the last");
      if (++count > kMaxRules)
        throw Mistake(rule->place, "too many answers; expected at most " + std::to_string(kMaxRules));
      of_endpoint.push_back(readRule(*rule, script.delay));
    }
  }
}

}  // namespace

ServiceScript readService(const YamlNode& node) {
  const Fields fields(node, "\"service\"",
                      {"delay", "clock", "attribution", "premium-postback", "schedule", "answers"});
  ServiceScript script;
  if (const YamlNode* delay = fields.find("delay"))
    script.delay = timeRangeOf(*delay, "delay");
  if (const YamlNode* clock = fields.find("clock")) {
    const auto ahead = readSignedTime(textOf(*clock, "clock"));
    if (!ahead)
      throw Mistake(clock->place, "clock is \"" + clock->text + "\"; expected " + kTimeForms + ", with a sign");
    script.clock_ahead_milliseconds = *ahead;
  }
  if (const YamlNode* attribution = fields.find("attribution"))
    script.attribution = objectOf(*attribution, "attribution");
  if (const YamlNode* premium_postback = fields.find("premium-postback"))
    script.premium_postback = booleanOf(*premium_postback, "premium-postback");
  if (const YamlNode* schedule = fields.find("schedule"))
    script.schedule = objectOf(*schedule, "schedule");
  if (const YamlNode* answers = fields.find("answers"))
    readAnswers(*answers, script);
  return script;
}

}  // namespace morvik_device::scenario
