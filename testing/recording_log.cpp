#include "testing/recording_log.h"

#include <charconv>

namespace morvik::testing {
namespace {

/// The text before `end`, both removed from the front of `rest`; nothing if `end` does not occur.
std::optional<std::string_view> takeUpTo(std::string_view& rest, std::string_view end) {
  const size_t at = rest.find(end);
  if (at == std::string_view::npos)
    return std::nullopt;
  const std::string_view taken = rest.substr(0, at);
  rest.remove_prefix(at + end.size());
  return taken;
}

std::optional<int> asLineNumber(std::string_view digits) {
  int number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc() || end != digits.data() + digits.size() || digits.empty())
    return std::nullopt;
  return number;
}

/// An operation's name has spaces between its brackets and none after them.
std::optional<std::string_view> takeOperation(std::string_view& rest) {
  if (!rest.starts_with("-[") && !rest.starts_with("+["))
    return takeUpTo(rest, " ");
  const size_t bracket = rest.find(']');
  if (bracket == std::string_view::npos)
    return std::nullopt;
  const size_t blank = rest.find(' ', bracket);
  if (blank == std::string_view::npos)
    return std::nullopt;
  const std::string_view operation = rest.substr(0, blank);
  rest.remove_prefix(blank + 1);
  return operation;
}

bool isOneWord(std::string_view text) {
  return !text.empty() && text.find_first_of(" \n") == std::string_view::npos;
}

std::optional<LogPrefix> takePrefix(std::string_view& rest) {
  const auto level = takeUpTo(rest, " ");
  const auto component = level ? takeUpTo(rest, ":") : std::nullopt;
  const auto file = component ? takeUpTo(rest, ":") : std::nullopt;
  const auto line = file ? takeUpTo(rest, ":") : std::nullopt;
  const auto number = line ? asLineNumber(*line) : std::nullopt;
  const auto operation = number ? takeOperation(rest) : std::nullopt;
  if (!operation || !isOneWord(*level) || !isOneWord(*component) || !isOneWord(*file))
    return std::nullopt;
  return LogPrefix{std::string(*level), std::string(*component), std::string(*file), *number, std::string(*operation)};
}

}  // namespace

LogLine splitLogLine(std::string_view text) {
  std::string_view message = text;
  std::optional<LogPrefix> prefix = takePrefix(message);
  return {std::string(text), prefix, std::string(prefix ? message : text)};
}

std::vector<std::string> RecordingLog::messages() const {
  std::vector<std::string> messages;
  for (const LogLine& line : lines())
    messages.push_back(line.message);
  return messages;
}

std::vector<std::string> RecordingLog::messagesOf(std::string_view operation) const {
  std::vector<std::string> messages;
  for (const LogLine& line : lines()) {
    if (line.prefix && line.prefix->operation == operation)
      messages.push_back(line.message);
  }
  return messages;
}

std::optional<LogLine> RecordingLog::find(std::string_view message) const {
  const auto found = lines_.matching([message](const LogLine& line) { return line.message == message; });
  return found.empty() ? std::nullopt : std::optional(found.front());
}

size_t RecordingLog::count(std::string_view message) const {
  return lines_.matching([message](const LogLine& line) { return line.message == message; }).size();
}

size_t RecordingLog::countContaining(std::string_view part) const {
  return lines_.matching([part](const LogLine& line) { return line.text.find(part) != std::string::npos; }).size();
}

}  // namespace morvik::testing
