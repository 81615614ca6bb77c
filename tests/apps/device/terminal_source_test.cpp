#include "apps/device/terminal_source.h"

#include <gmock/gmock.h>

#include <sstream>

namespace morvik_device {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Typed {
  explicit Typed(const std::string& text, bool prompts = true)
      : input(text), source(commandsTyped(input, people, prompts)) {}

  /// The name of the next command; "end" at the end of the input.
  std::string next() {
    const NextCommand command = source();
    return std::holds_alternative<Command>(command) ? std::string(std::get<Command>(command).verb->name) : "end";
  }

  std::istringstream input;
  std::ostringstream people;
  CommandSource source;
};

TEST(TerminalSource, AsksForEachCommand) {
  Typed typed("active\npush\n");
  EXPECT_EQ(typed.next(), "active");
  EXPECT_EQ(typed.people.str(), "morvik> ");
  EXPECT_EQ(typed.next(), "push");
  EXPECT_EQ(typed.next(), "end");
  EXPECT_EQ(typed.people.str(), "morvik> morvik> morvik> \n");
}

TEST(TerminalSource, AsksForNothingWhereNobodyWouldSeeIt) {
  Typed typed("active\n", false);
  EXPECT_EQ(typed.next(), "active");
  EXPECT_EQ(typed.next(), "end");
  EXPECT_EQ(typed.people.str(), "");
}

TEST(TerminalSource, TellsAMistakeAndGoesOn) {
  Typed typed("evnt shop look\nevent shop\n\n# nothing\npush\n", false);
  EXPECT_EQ(typed.next(), "push");
  EXPECT_THAT(typed.people.str(), StartsWith("morvik-device: \"evnt\" is not a verb; use one of: active, "));
  EXPECT_THAT(typed.people.str(),
              HasSubstr("\nmorvik-device: event: an argument is missing; write: event GROUP NAME [PARAM]\n"));
}

TEST(TerminalSource, DropsALineThatIsTooLongWholeAndGoesOn) {
  Typed typed("event a " + std::string(kMaxLineBytes, 'x') + "\npush\n", false);
  EXPECT_EQ(typed.next(), "push");
  EXPECT_EQ(typed.people.str(), "morvik-device: the line is longer than 4194304 bytes; give less at once\n");
}

TEST(TerminalSource, HelpsWithAllVerbsOrOne) {
  Typed all("help\npush\n", false);
  EXPECT_EQ(all.next(), "push");
  for (const Verb& verb : verbs())
    EXPECT_THAT("\n" + all.people.str(), HasSubstr("\n  " + std::string(verb.name) + " "));
  EXPECT_THAT(all.people.str(), HasSubstr("\n  help [VERB] "));
  Typed one(" help  event \nhelp evnt\npush\n", false);
  EXPECT_EQ(one.next(), "push");
  EXPECT_THAT(
      one.people.str(),
      StartsWith(
          "  event GROUP NAME [PARAM]  records an activity; a PARAM that begins with '{' takes the rest of the line\n"
          "\"evnt\" is not a verb; "));
}

}  // namespace
}  // namespace morvik_device
