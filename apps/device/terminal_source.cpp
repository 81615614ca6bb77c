#include "apps/device/terminal_source.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "apps/device/input_line.h"
#include "apps/device/words.h"

namespace morvik_device {
namespace {

constexpr std::string_view kHelpVerb = "help";

class Typist {
 public:
  Typist(std::istream& stream, std::ostream& people, bool prompts)
      : stream_(stream), people_(people), prompts_(prompts) {}

  NextCommand next() {
    while (true) {
      if (prompts_)
        people_ << kPrompt << std::flush;
      std::string line;
      const InputLine found = readInputLine(stream_, line);
      if (found == InputLine::kEnd)
        return end();
      if (found == InputLine::kTooLong) {
        skipInputLine(stream_);
        tell(lineTooLong());
      } else if (auto command = read(line)) {
        return *std::move(command);
      }
    }
  }

 private:
  NextCommand end() {
    if (prompts_)
      people_ << std::endl;  // the end of input was typed after the prompt
    return std::monostate();
  }

  // Nothing if the line was a request for help, not a command.
  std::optional<Command> read(std::string_view line) {
    if (saysNothing(line))
      return std::nullopt;
    std::string_view rest = line;
    if (takeBareWord(rest) == kHelpVerb) {
      help(trimmed(rest));
      return std::nullopt;
    }
    auto command = readCommand(line);
    if (const auto* mistake = std::get_if<std::string>(&command)) {
      tell(*mistake);
      return std::nullopt;
    }
    return std::move(std::get<Command>(command));
  }

  void help(std::string_view name) {
    if (name.empty())
      people_ << verbsHelp() << "  help [VERB]               tells this, or how one verb is written" << std::endl;
    else
      people_ << helpOf(name) << std::flush;
  }

  void tell(const std::string& mistake) { people_ << "morvik-device: " << mistake << std::endl; }

  std::istream& stream_;
  std::ostream& people_;
  bool prompts_;
};

}  // namespace

CommandSource commandsTyped(std::istream& stream, std::ostream& people, bool prompts) {
  return [typist = Typist(stream, people, prompts)]() mutable { return typist.next(); };
}

}  // namespace morvik_device
