#include "apps/device/scenario/timeline.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "apps/device/visible.h"
#include "services/dates.h"
#include "services/json_writer.h"

namespace morvik_device::scenario {
namespace {

namespace kit = morvik::kit;
using Kind = Happening::Kind;

constexpr const char* kReset = "\033[0m";
constexpr const char* kBold = "\033[1m";
constexpr const char* kDim = "\033[2m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kYellow = "\033[33m";
constexpr const char* kBlue = "\033[34m";
constexpr const char* kMagenta = "\033[35m";
constexpr const char* kCyan = "\033[36m";

constexpr size_t kTimeColumn = 18;
constexpr size_t kWhoColumn = 10;

struct KindForm {
  Kind kind;
  const char* name;    ///< for machines
  const char* who;     ///< for people
  const char* colour;  ///< if nothing is wrong
};

constexpr KindForm kForms[] = {
    {Kind::kProcess, "process", "process", kMagenta},
    {Kind::kApp, "app", "app", kBold},
    {Kind::kRefused, "refused", "app", kYellow},
    {Kind::kSession, "session", "session", kCyan},
    {Kind::kNetwork, "network", "network", kMagenta},
    {Kind::kRequest, "request", "  ->", kBlue},
    {Kind::kAnswer, "answer", "  <-", kGreen},
    {Kind::kCallback, "callback", "callback", kCyan},
    {Kind::kLog, "log", "log", kDim},
};

const KindForm& formOf(Kind kind) {
  return *std::find_if(std::begin(kForms), std::end(kForms),
                       [kind](const KindForm& form) { return form.kind == kind; });
}

std::string leftPadded(std::string text, size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string rightPadded(std::string text, size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

kit::MutableDictionary jsonLine(int64_t at_milliseconds, const char* kind) {
  kit::MutableDictionary line;
  line.set("at", static_cast<double>(at_milliseconds) / kMillisecondsPerSecond);
  line.set("kind", kind);
  return line;
}

// A log message may have several lines; the next ones are written under the first.
std::string indented(std::string_view text, size_t column) {
  std::string out;
  for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    out.append(visible(text.substr(0, end))).append(1, '\n').append(column, ' ');
    text.remove_prefix(end + 1);
  }
  return out + visible(text);
}

}  // namespace

Timeline::Timeline(std::FILE* stream, TimelineForm form, std::string file, uint64_t seed)
    : stream_(stream), form_(form), file_(std::move(file)), seed_(seed) {}

std::string Timeline::coloured(const char* colour, const std::string& text) const {
  return form_ == TimelineForm::kColoured ? colour + text + kReset : text;
}

std::string Timeline::where(const Expectation& expectation) const {
  return visible(file_) + ":" + std::to_string(expectation.place.line);
}

void Timeline::begin(const Scenario& scenario) {
  const std::string start = morvik::services::utcIsoDateText(scenario.start);
  if (isJson()) {
    writeJson(kit::Dictionary{
        {"kind", "story"}, {"story", scenario.story}, {"file", file_}, {"start", start}, {"seed", seed_}});
    return;
  }
  write(coloured(kBold, visible(scenario.story)) + "\n" +
        coloured(kDim, visible(file_) + ", from " + start + ", seed " + std::to_string(seed_)) + "\n\n");
}

void Timeline::happened(const Happening& happening) {
  const KindForm& form = formOf(happening.kind);
  if (!isJson()) {
    writeLine(happening.at_milliseconds, happening.is_trouble ? kRed : form.colour, form.who, happening.text);
    return;
  }
  kit::MutableDictionary line = jsonLine(happening.at_milliseconds, form.name);
  for (const kit::Entry& field : happening.fields)
    line.set(field.key, field.value);
  writeJson(kit::Value(std::move(line)));
}

void Timeline::assessed(int64_t at_milliseconds, const Expectation& expectation, const Verdict& verdict) {
  if (isJson()) {
    kit::MutableDictionary line = jsonLine(at_milliseconds, "expectation");
    line.set("met", verdict.met);
    line.set("line", int64_t{expectation.place.line});
    line.set("expected", verdict.expected);
    if (!verdict.met)
      line.set("got", verdict.got);
    writeJson(kit::Value(std::move(line)));
    return;
  }
  if (verdict.met) {
    writeLine(at_milliseconds, kGreen, "expected", "met: " + verdict.expected);
    return;
  }
  writeLine(at_milliseconds, kRed, "expected", "MISSED: " + verdict.expected);
  write("\n" + coloured(kRed, where(expectation) + ": this expectation is not met") + "\n  expected  " +
        visible(verdict.expected) + "\n  got       " + visible(verdict.got) + "\n  seed      " + std::to_string(seed_) +
        " (morvik-device simulate " + visible(file_) + " --seed " + std::to_string(seed_) + " plays it again)\n");
}

void Timeline::end(size_t met, bool missed) {
  if (isJson()) {
    writeJson(
        kit::Dictionary{{"kind", "end"}, {"met", static_cast<int64_t>(met)}, {"missed", missed}, {"seed", seed_}});
    return;
  }
  if (!missed) {
    write("\n" +
          coloured(kGreen,
                   met == 1 ? "The expectation is met." : "All " + std::to_string(met) + " expectations are met.") +
          "\n");
  }
}

void Timeline::writeLine(int64_t at_milliseconds, const char* colour, const std::string& who, const std::string& what) {
  write(coloured(kDim, leftPadded(clockText(at_milliseconds), kTimeColumn)) + "  " +
        coloured(colour, rightPadded(who, kWhoColumn) + indented(what, kTimeColumn + 2 + kWhoColumn)) + "\n");
}

void Timeline::write(const std::string& line) {
  if (std::fwrite(line.data(), 1, line.size(), stream_) != line.size())
    failed_ = true;
}

void Timeline::writeJson(const kit::Value& line) {
  std::string text;
  morvik::services::appendJsonDescription(line, text);
  write(text + "\n");
}

}  // namespace morvik_device::scenario
