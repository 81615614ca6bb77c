// What must come of a story.
#include <algorithm>

#include "apps/device/scenario/fields.h"
#include "apps/device/scenario/numbers.h"
#include "apps/device/scenario/scenario_parts.h"
#include "apps/device/store_view.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik_device::scenario {
namespace {

using Subject = Expectation::Subject;

constexpr int64_t kMostCount = 1'000'000'000;

Count readCount(const YamlNode& node) {
  const std::string text = textOf(node, "count");
  const size_t dots = text.find("..");
  const std::string_view least_text = std::string_view(text).substr(0, dots);
  const std::string_view most_text = dots == std::string::npos ? least_text : std::string_view(text).substr(dots + 2);
  Count count;
  const auto least = least_text.empty() ? std::optional(count.least) : wholeText<size_t>(least_text);
  const auto most = most_text.empty() ? std::optional(count.most) : wholeText<size_t>(most_text);
  const bool says_something = !least_text.empty() || !most_text.empty();
  if (!least || !most || *least > *most || *least > kMostCount || !says_something)
    throw Mistake(node.place, "count is \"" + text + "\"; expected a number like 2, or a range like 2..5, 2.. or ..5");
  return {*least, *most};
}

struct Form {
  std::string_view key;
  Subject subject;
  /// Keys that may accompany it.
  std::vector<std::string_view> others;
};

const std::vector<Form>& forms() {
  static const std::vector<Form> all = {
      {"request", Subject::kRequest, {"count", "with", "when"}},
      {"delivered", Subject::kDelivered, {"count", "param"}},
      {"callback", Subject::kCallback, {"count", "with", "when", "module"}},
      {"log", Subject::kLog, {"count", "when"}},
      {"log-exactly", Subject::kLog, {"count", "when"}},
      {"store", Subject::kStore, {"is", "count", "with"}},
      {"ledger", Subject::kLedger, {"with"}},
  };
  return all;
}

std::vector<std::string_view> subjectKeys() {
  std::vector<std::string_view> keys;
  for (const Form& form : forms())
    keys.push_back(form.key);
  return keys;
}

void checkKindOfLedger(const YamlNode& node, const std::string& name) {
  std::vector<std::string_view> names = {kSoundLedger};
  names.insert(names.end(), morvik::runtime::kLedgerKindNames.begin(), morvik::runtime::kLedgerKindNames.end());
  if (std::find(names.begin(), names.end(), name) == names.end())
    throw Mistake(node.place, "\"" + name + "\" is not a kind of record; expected " + oneOf(names));
}

void checkName(const YamlNode& node, Expectation& expectation) {
  if (expectation.name.empty())
    throw Mistake(node.place, "the text is empty; expected what it is about");
  if (expectation.subject == Subject::kRequest) {
    const auto endpoint = morvik::testing::endpointNamed(expectation.name);
    if (!endpoint) {
      std::vector<std::string_view> names;
      for (const auto each : morvik::testing::kServiceEndpoints)
        names.push_back(morvik::testing::nameOf(each));
      throw Mistake(node.place, "\"" + expectation.name + "\" is not an endpoint; expected " + oneOf(names));
    }
    expectation.endpoint = *endpoint;
  }
  if (expectation.subject == Subject::kDelivered && expectation.name.find('/') == std::string::npos) {
    throw Mistake(node.place, "delivered is \"" + expectation.name +
                                  "\"; expected group and name of the event, like shop/purchase");
  }
  if (expectation.subject == Subject::kStore && !isStoredProperty(expectation.name))
    throw Mistake(node.place, "\"" + expectation.name +
                                  "\" is not a stored property; expected one of those that the verb "
                                  "\"store\" shows");
  if (expectation.subject == Subject::kLedger)
    checkKindOfLedger(node, expectation.name);
}

void readLedgerForm(const Fields& fields, Place place, const Expectation& expectation) {
  if (expectation.name == kSoundLedger)
    fields.refuse({"with"}, "expected the name of a kind with it; a ledger is sound or not");
  else if (!expectation.with)
    throw Mistake(place, "nothing is said of the kind; expected \"with\"");
}

void readStoreForm(const Fields& fields, Place place, Expectation& expectation) {
  if (expectation.is && (expectation.count || expectation.with))
    fields.refuse({"count", "with"}, "expected \"is\", or \"count\" of a list's elements");
  if (!expectation.is && !expectation.count && !expectation.with)
    throw Mistake(place, "nothing is said of the property; expected \"is\", \"count\" or \"with\"");
}

Expectation readExpectation(const YamlNode& node) {
  std::vector<std::string_view> known = subjectKeys();
  known.insert(known.end(), {"count", "with", "when", "is", "param", "module"});
  const Fields fields(node, "an expectation", known);
  const std::string_view key = fields.exactlyOne(subjectKeys());
  const Form* form = nullptr;
  for (const Form& each : forms())
    form = each.key == key ? &each : form;
  for (const std::string_view other : {"count", "with", "when", "is", "param", "module"}) {
    if (std::find(form->others.begin(), form->others.end(), other) == form->others.end())
      fields.refuse({other}, "expected with \"" + std::string(key) + "\" only " + oneOf(form->others));
  }
  Expectation expectation;
  expectation.subject = form->subject;
  expectation.place = fields.placeOf(key);
  expectation.whole_line = key == "log-exactly";
  expectation.name = textOf(*fields.find(key), std::string(key));
  checkName(*fields.find(key), expectation);
  if (const YamlNode* count = fields.find("count"))
    expectation.count = readCount(*count);
  if (const YamlNode* with = fields.find("with"))
    expectation.with = valueOf(*with);
  if (const YamlNode* is = fields.find("is"))
    expectation.is = valueOf(*is);
  if (const YamlNode* param = fields.find("param"))
    expectation.param = textOf(*param, "param");
  if (const YamlNode* module = fields.find("module"))
    expectation.module = textOf(*module, "module");
  if (const YamlNode* when = fields.find("when"))
    expectation.when = timeRangeOf(*when, "when");
  if (expectation.subject == Subject::kStore)
    readStoreForm(fields, node.place, expectation);
  if (expectation.subject == Subject::kLedger)
    readLedgerForm(fields, node.place, expectation);
  return expectation;
}

}  // namespace

std::vector<Expectation> readExpectations(const YamlNode& node) {
  std::vector<Expectation> all;
  for (const YamlNode* element : oneOrMore(node, "expect"))
    all.push_back(readExpectation(*element));
  return all;
}

}  // namespace morvik_device::scenario
