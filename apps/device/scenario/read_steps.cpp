// What happens, step by step, and what the network is meanwhile.
#include <algorithm>
#include <iterator>
#include <utility>
#include <variant>

#include "apps/device/scenario/fields.h"
#include "apps/device/scenario/scenario_parts.h"

namespace morvik_device::scenario {
namespace {

struct Unplayable {
  std::string_view verb;
  const char* instead;
};

// Verbs of the program that have no place in a story, and what has.
constexpr Unplayable kUnplayable[] = {
    {"wait", "a step with a later time"},
    {"settle", "a step with a later time"},
    {"flush", "\"push\""},
    {"wait-delivered", "\"push\""},
    {"store", "\"store\" under \"expect\""},
    {"ledger", "\"ledger\" under \"expect\""},
    {"explain", "\"ledger\" or \"delivered\" under \"expect\""},
    {"status", "an expectation, \"store\" or \"ledger\" under \"expect\""},
    {"is-forgotten", "\"store: MorvikCoreUserInfo_isGDPRForgetMe\" under \"expect\""},
    {"crash-signal", "\"crash TEXT\" or \"kill\""},
};

constexpr int64_t kMostRepeats = static_cast<int64_t>(kMaxVerbs);

StepVerb readVerb(const YamlNode& node) {
  const std::string line = textOf(node, "a verb");
  if (saysNothing(line) || line.find('\n') != std::string::npos)
    throw Mistake(node.place, "a verb is one line with a command; expected one like \"event shop purchase\"");
  auto read = readCommand(line);
  if (const auto* problem = std::get_if<std::string>(&read))
    throw Mistake(node.place, *problem);
  auto& command = std::get<Command>(read);
  const auto* unplayable = std::find_if(std::begin(kUnplayable), std::end(kUnplayable),
                                        [&](const Unplayable& each) { return each.verb == command.verb->name; });
  if (unplayable != std::end(kUnplayable)) {
    throw Mistake(node.place, "\"" + std::string(unplayable->verb) + "\" is not available in scenarios; expected " +
                                  unplayable->instead);
  }
  return {std::move(command), line, node.place};
}

int64_t timeOfStep(const Fields& fields, int64_t previous) {
  const YamlNode* at = fields.find("at");
  const YamlNode* after = fields.find("after");
  if (at != nullptr && after != nullptr)
    throw Mistake(fields.placeOf("after"), "\"after\" cannot be combined with \"at\"; expected one of them");
  if (after != nullptr) {
    const int64_t time = previous + timeOf(*after, "after");
    if (time > kMaxDurationMilliseconds)
      throw Mistake(after->place, "the step is too late; expected at most " + durationText(kMaxDurationMilliseconds));
    return time;
  }
  if (at == nullptr)
    return previous;
  const int64_t time = timeOf(*at, "at");
  if (time < previous) {
    throw Mistake(at->place, "the step is at " + durationText(time) + ", before the one above; expected " +
                                 durationText(previous) + " or later");
  }
  return time;
}

void readRepetition(const Fields& fields, Step& step) {
  const YamlNode* repeat = fields.find("repeat");
  const YamlNode* every = fields.find("every");
  if (repeat == nullptr) {
    fields.refuse({"every"}, "expected \"repeat\" with it");
    return;
  }
  step.repeat = static_cast<size_t>(wholeNumberOf(*repeat, "repeat", 1, kMostRepeats));
  if (every != nullptr)
    step.every_milliseconds = timeOf(*every, "every");
  const auto pauses = static_cast<int64_t>(step.repeat - 1);
  if (pauses > 0 && step.every_milliseconds > (kMaxDurationMilliseconds - step.at_milliseconds) / pauses)
    throw Mistake(fields.placeOf("every"),
                  "the last round is too late; expected at most " + durationText(kMaxDurationMilliseconds));
}

Step readStep(const YamlNode& node, int64_t previous) {
  const Fields fields(node, "a step", {"at", "after", "repeat", "every", "do", "expect"});
  Step step;
  step.place = node.place;
  step.at_milliseconds = timeOfStep(fields, previous);
  const YamlNode* verbs = fields.find("do");
  const YamlNode* expect = fields.find("expect");
  if (verbs == nullptr && expect == nullptr)
    throw Mistake(node.place, "a step does nothing; expected \"do\", \"expect\" or both");
  if (verbs != nullptr) {
    for (const YamlNode* verb : oneOrMore(*verbs, "do"))
      step.verbs.push_back(readVerb(*verb));
  }
  readRepetition(fields, step);
  if (expect != nullptr)
    step.expectations = readExpectations(*expect);
  return step;
}

NetworkPhase::Kind phaseKind(const YamlNode& node) {
  const std::string text = textOf(node, "is");
  if (text == "offline")
    return NetworkPhase::Kind::kOffline;
  if (text == "dead")
    return NetworkPhase::Kind::kDead;
  if (text == "portal")
    return NetworkPhase::Kind::kPortal;
  throw Mistake(node.place, "\"is\" cannot be \"" + text + "\"; expected offline, dead or portal");
}

NetworkPhase readPhase(const YamlNode& node, int64_t previous_end) {
  const Fields fields(node, "a phase of the network", {"is", "from", "to", "page"});
  NetworkPhase phase;
  phase.place = node.place;
  fields.exactlyOne({"is"});
  phase.kind = phaseKind(*fields.find("is"));
  if (const YamlNode* from = fields.find("from"))
    phase.from_milliseconds = timeOf(*from, "from");
  if (const YamlNode* to = fields.find("to"))
    phase.to_milliseconds = timeOf(*to, "to");
  if (phase.from_milliseconds < previous_end) {
    throw Mistake(fields.placeOf("from"), "the phase begins before the one above is over; expected " +
                                              durationText(previous_end) + " or later");
  }
  if (phase.to_milliseconds <= phase.from_milliseconds) {
    throw Mistake(fields.placeOf("to"), "the phase ends when it begins, or before; expected a time later than " +
                                            durationText(phase.from_milliseconds));
  }
  if (phase.kind != NetworkPhase::Kind::kPortal)
    fields.refuse({"page"}, "expected it for a portal only");
  phase.text = "<html><body>Please accept our terms</body></html>";
  if (const YamlNode* page = fields.find("page"))
    phase.text = page->isScalar() ? page->text : jsonTextOf(*page);
  return phase;
}

template <class Element>
void checkCount(const std::vector<Element>& elements, size_t most, Place place, const char* what) {
  if (elements.size() > most) {
    throw Mistake(place, std::to_string(elements.size()) + " " + what + "; expected at most " + std::to_string(most));
  }
}

}  // namespace

std::vector<Step> readSteps(const YamlNode& node) {
  const std::vector<YamlNode>& list = listOf(node, "steps");
  checkCount(list, kMaxSteps, node.place, "steps");
  std::vector<Step> steps;
  size_t verbs = 0;
  for (const YamlNode& element : list) {
    steps.push_back(readStep(element, steps.empty() ? 0 : steps.back().lastMillisecond()));
    verbs += steps.back().verbs.size() * steps.back().repeat;
    if (verbs > kMaxVerbs)
      throw Mistake(element.place, "too many verbs; expected at most " + std::to_string(kMaxVerbs));
  }
  if (verbs == 0)
    throw Mistake(node.place, "no step does anything; expected at least one verb under \"do\"");
  return steps;
}

std::vector<NetworkPhase> readNetwork(const YamlNode& node) {
  const std::vector<YamlNode>& list = listOf(node, "network");
  checkCount(list, kMaxPhases, node.place, "phases of the network");
  std::vector<NetworkPhase> phases;
  for (const YamlNode& element : list)
    phases.push_back(readPhase(element, phases.empty() ? 0 : phases.back().to_milliseconds));
  return phases;
}

}  // namespace morvik_device::scenario
