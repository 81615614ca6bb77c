#include "apps/device/line_source.h"

#include <memory>
#include <utility>

#include "apps/device/input_line.h"

namespace morvik_device {
namespace {

class Reader {
 public:
  Reader(std::istream& stream, std::string name) : stream_(stream), name_(std::move(name)) {}

  NextCommand next() {
    // The rest of a line that is too long stays unread: nothing after it is run anyway.
    InputLine found = InputLine::kRead;
    do {
      ++number_;
      found = readInputLine(stream_, line_);
    } while (found == InputLine::kRead && saysNothing(line_));
    if (found == InputLine::kEnd)
      return std::monostate();
    if (found == InputLine::kTooLong)
      return mistake(lineTooLong());
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
