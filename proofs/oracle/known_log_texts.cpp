#include "proofs/oracle/known_log_texts.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace morvik::proofs {
namespace {

constexpr KnownLogText kTexts[] = {
#define MORVIK_KNOWN(file, text) {file, text, false},
#define MORVIK_ALARM(file, text) {file, text, true},
#include "proofs/oracle/known_log_texts.inc"
#undef MORVIK_KNOWN
#undef MORVIK_ALARM
};

/// The fixed parts of a text, in between what is filled in.
std::vector<std::string_view> partsOf(std::string_view text) {
  std::vector<std::string_view> parts;
  size_t begin = 0;
  for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', begin)) {
    parts.push_back(text.substr(begin, at - begin));
    ++at;
    while (at < text.size() && text[at] == 'l')
      ++at;
    begin = std::min(at + 1, text.size());
  }
  parts.push_back(text.substr(begin));
  return parts;
}

struct Pattern {
  std::string_view file;
  std::vector<std::string_view> parts;
  bool is_alarm;

  bool matches(std::string_view message) const {
    if (!message.starts_with(parts.front()))
      return false;
    if (parts.size() == 1)
      return message.size() == parts.front().size();
    if (message.size() < parts.front().size() + parts.back().size() || !message.ends_with(parts.back()))
      return false;
    message.remove_suffix(parts.back().size());
    size_t at = parts.front().size();
    for (size_t i = 1; i + 1 < parts.size(); ++i) {
      at = message.find(parts[i], at);
      if (at == std::string_view::npos)
        return false;
      at += parts[i].size();
    }
    return true;
  }
};

const std::vector<Pattern>& patterns() {
  static const std::vector<Pattern> all = [] {
    std::vector<Pattern> made;
    for (const KnownLogText& each : kTexts)
      made.push_back({each.file, partsOf(each.text), each.is_alarm});
    return made;
  }();
  return all;
}

constexpr std::string_view kLevels[] = {"OFF", "CRITICAL", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};

/// Passes on what parts of the machine say, with its own name in the prefix.
constexpr std::string_view kPassesOn = "logged_lines.cpp";

/// "LEVEL Component:file.cpp:17:-[Class operation:] " before a message.
struct Line {
  std::string_view file;  ///< empty: it has no prefix, or one that does not tell
  std::string_view message;
};

Line read(std::string_view line) {
  const Line plain{"", line};
  const auto* const level = std::find_if(std::begin(kLevels), std::end(kLevels),
                                         [line](std::string_view header) { return line.starts_with(header); });
  if (level == std::end(kLevels))
    return plain;
  const size_t component = line.find(':');
  const size_t file = component == std::string_view::npos ? component : line.find(':', component + 1);
  const size_t number = file == std::string_view::npos ? file : line.find(':', file + 1);
  const size_t operation = number == std::string_view::npos ? number : line.find(']', number + 1);
  const size_t message = operation == std::string_view::npos ? operation : line.find(' ', operation);
  if (message == std::string_view::npos)
    return plain;
  const std::string_view name = line.substr(component + 1, file - component - 1);
  return {name == kPassesOn ? "" : name, line.substr(message + 1)};
}

}  // namespace

std::span<const KnownLogText> knownLogTexts() {
  return kTexts;
}

LogLineKind kindOfLogLine(std::string_view line) {
  const Line read_line = read(line);
  LogLineKind kind = LogLineKind::kUnknown;
  for (const Pattern& pattern : patterns()) {
    if ((!read_line.file.empty() && pattern.file != read_line.file) || !pattern.matches(read_line.message))
      continue;
    if (!pattern.is_alarm)
      return LogLineKind::kKnown;
    kind = LogLineKind::kAlarm;
  }
  return kind;
}

}  // namespace morvik::proofs
