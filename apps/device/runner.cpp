#include "apps/device/runner.h"

#include <future>
#include <memory>
#include <utility>

namespace morvik_device {
namespace {

// Runs one command to its end; true when it ends the program.
bool run(const Command& command, Phone& phone, Output& output) {
  const auto ends_program = std::make_shared<std::promise<bool>>();
  std::future<bool> done = ends_program->get_future();
  // The reply comes within a turn, whose writes are committed at its end: the line waits for that.
  Reply reply = [&phone, &output, &command, ends_program](const Outcome& outcome) {
    phone.instance().afterThisTurn([&output, &command, ends_program, outcome] {
      if (!outcome.ends_program)
        output.verbDone(command.verb->name, outcome);
      ends_program->set_value(outcome.ends_program);
    });
  };
  if (command.verb->blocks_its_thread) {
    command.verb->act(phone, command.arguments, [&phone, reply = std::exchange(reply, {})](const Outcome& outcome) {
      phone.instance().mainQueue().async([reply, outcome] { reply(outcome); });
    });
  } else {
    phone.instance().mainQueue().async(
        [&phone, &command, reply = std::move(reply)] { command.verb->act(phone, command.arguments, reply); });
  }
  try {
    return done.get();
  } catch (const std::future_error&) {  // the reply was dropped
    Outcome outcome;
    outcome.refusal = "it did not come to its end; the log says why";
    output.verbDone(command.verb->name, outcome);
    return false;
  }
}

}  // namespace

std::optional<std::string> runCommands(const CommandSource& source, Phone& phone, Output& output,
                                       std::optional<Command>& last, const std::function<void()>& after_each) {
  while (!output.failed()) {
    NextCommand next = source();
    if (auto* mistake = std::get_if<std::string>(&next))
      return std::move(*mistake);
    const auto* command = std::get_if<Command>(&next);
    if (command == nullptr) {
      after_each();
      break;
    }
    const bool ends_program = run(*command, phone, output);
    after_each();
    if (ends_program) {
      last = *command;
      break;
    }
  }
  return std::nullopt;
}

}  // namespace morvik_device
