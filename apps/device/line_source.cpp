#include "apps/device/line_source.h"

#include <memory>
#include <utility>

namespace morvik_device {
namespace {

enum class Line { kRead, kTooLong, kEnd };

// One line without its line feed, and without a carriage return before it. Of a line that is too long the rest stays
// unread: nothing after it is run anyway.
Line readLine(std::istream& stream, std::string& line) {
  line.clear();
  std::streambuf& buffer = *stream.rdbuf();
  constexpr auto kEndOfFile = std::istream::traits_type::eof();
  auto next = buffer.sbumpc();
  if (next == kEndOfFile)
    return Line::kEnd;
  for (; next != kEndOfFile && next != '\n'; next = buffer.sbumpc()) {
    if (line.size() == kMaxLineBytes)
      return Line::kTooLong;
    line.push_back(std::istream::traits_type::to_char_type(next));
  }
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return Line::kRead;
}

class Reader {
 public:
  Reader(std::istream& stream, std::string name) : stream_(stream), name_(std::move(name)) {}

  NextCommand next() {
    Line found = Line::kRead;
    do {
      ++number_;
      found = readLine(stream_, line_);
    } while (found == Line::kRead && saysNothing(line_));
    if (found == Line::kEnd)
      return std::monostate();
    if (found == Line::kTooLong)
      return mistake("the line is longer than " + std::to_string(kMaxLineBytes) + " bytes; give less at once");
    auto command = readCommand(line_);
    if (const auto* problem = std::get_if<std::string>(&command))
      return mistake(*problem);
    return std::move(std::get<Command>(command));
  }

 private:
  std::string mistake(const std::string& problem) const {
    return name_ + ", line " + std::to_string(number_) + ": " + problem;
  }

  std::istream& stream_;
  std::string name_;
  std::string line_;
  size_t number_ = 0;
};

}  // namespace

CommandSource commandsOf(std::istream& stream, std::string name) {
  return [reader = std::make_shared<Reader>(stream, std::move(name))] { return reader->next(); };
}

std::variant<std::deque<Command>, std::string> readAll(const CommandSource& source) {
  std::deque<Command> commands;
  while (true) {
    NextCommand next = source();
    if (std::holds_alternative<std::monostate>(next))
      return commands;
    if (auto* mistake = std::get_if<std::string>(&next))
      return std::move(*mistake);
    commands.push_back(std::move(std::get<Command>(next)));
  }
}

CommandSource commandsOf(std::deque<Command> commands) {
  return [left = std::make_shared<std::deque<Command>>(std::move(commands))]() -> NextCommand {
    if (left->empty())
      return std::monostate();
    Command command = std::move(left->front());
    left->pop_front();
    return command;
  };
}

}  // namespace morvik_device
