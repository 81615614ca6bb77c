#include "apps/command_line/command_line.h"

#include <gmock/gmock.h>

#include "apps/command_line/completion.h"

namespace morvik_command_line {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// "walk" (the default) returns its number; "paint" was chosen by --paint FILE.
class CommandLineTest : public ::testing::Test {
 protected:
  CommandLine commandLine() {
    return {"toy",
            "1.2",
            "A toy.",
            {{"walk", "Walks.",
              [this](CLI::App& app) {
                app.add_option("--steps", steps_, "how many")->type_name("N");
                app.callback([this] {
                  if (steps_ == 13)
                    throw UsageError("--steps 13 brings bad luck; give another number");
                });
                return [this] { return steps_; };
              }},
             {"paint", "Paints.", [this](CLI::App& app) {
                CLI::Option* const file = app.add_option("FILE", file_, "what to paint")->type_name("");
                app.add_option("--paint", file_)->excludes(file)->group(kFormerGroup);
                takeOneOf(app.add_option("--colour", colour_, "with which colour"), {"red", "blue"});
                return [] { return 100; };
              }}}};
  }

  int run(const std::vector<std::string>& arguments) {
    const auto read = commandLine().read(arguments);
    if (const auto* job = std::get_if<Job>(&read))
      return (*job)();
    ADD_FAILURE() << std::get<Printed>(read).text;
    return -1;
  }

  std::string print(const std::vector<std::string>& arguments, int exit_status) {
    const auto read = commandLine().read(arguments);
    const auto* printed = std::get_if<Printed>(&read);
    if (printed == nullptr)
      return "it would run";
    EXPECT_EQ(printed->exit_status, exit_status);
    return printed->text;
  }

  int steps_ = 0;
  std::string file_;
  std::string colour_ = "red";
};

TEST_F(CommandLineTest, RunsTheFirstSubcommandUnlessOneIsNamed) {
  EXPECT_EQ(run({"--steps", "3"}), 3);
  EXPECT_EQ(run({"walk", "--steps", "4"}), 4);
  EXPECT_EQ(run({"paint", "house"}), 100);
  EXPECT_EQ(file_, "house");
}

TEST_F(CommandLineTest, ANameAfterTheSubcommandIsAnArgument) {
  EXPECT_EQ(run({"paint", "walk"}), 100);
  EXPECT_EQ(file_, "walk");
}

TEST_F(CommandLineTest, AFormerOptionChoosesItsSubcommandAnywhereButIsNotShown) {
  EXPECT_EQ(run({"--paint", "house"}), 100);
  EXPECT_EQ(file_, "house");
  EXPECT_EQ(run({"--colour=blue", "--paint=boat"}), 100);
  EXPECT_EQ(file_, "boat");
  EXPECT_THAT(print({"--paint"}, kExitUsage), StartsWith("toy: --paint: "));
  EXPECT_THAT(print({"paint", "a", "--paint", "b"}, kExitUsage), HasSubstr("excludes"));
  EXPECT_THAT(print({"paint", "--help"}, 0), Not(HasSubstr("--paint")));
  EXPECT_THAT(print({"paint", "--help"}, 0), Not(HasSubstr("Excludes")));
  EXPECT_THAT(print({"completion", "bash"}, 0), Not(HasSubstr("--paint")));
}

TEST_F(CommandLineTest, AMistakeIsOneLineThatSaysWhereHelpIs) {
  EXPECT_EQ(print({"--steps", "13"}, kExitUsage),
            "toy: --steps 13 brings bad luck; give another number; see toy walk --help\n");
  EXPECT_EQ(print({"paint", "--colour", "green"}, kExitUsage),
            "toy: --colour: green not in {red,blue}; see toy paint --help\n");
  EXPECT_EQ(print({"paintt"}, kExitUsage),
            "toy: there is no subcommand \"paintt\"; did you mean paint? See toy --help\n");
  EXPECT_EQ(print({"sing"}, kExitUsage),
            "toy: there is no subcommand \"sing\"; use one of: walk, paint, completion; see toy --help\n");
  EXPECT_EQ(print({"--stesp=3"}, kExitUsage),
            "toy: The following argument was not expected: --stesp=3; did you mean --steps? See toy walk --help\n");
}

TEST_F(CommandLineTest, AnEmptyValueIsGivenWithAnEqualsSign) {
  EXPECT_EQ(run({"--paint=", "--colour", "blue"}), 100);
  EXPECT_EQ(file_, "");
}

TEST_F(CommandLineTest, VersionAndHelpNeedNoSubcommand) {
  EXPECT_EQ(print({"--version"}, 0), "toy 1.2\n");
  EXPECT_EQ(print({"paint", "--version"}, 0), "toy 1.2\n");
  EXPECT_THAT(print({"--help"}, 0), HasSubstr("Usage: toy [OPTIONS] SUBCOMMAND"));
  EXPECT_THAT(print({"--steps", "3", "-h"}, 0), HasSubstr("Usage: toy walk [OPTIONS]"));
}

TEST_F(CommandLineTest, HelpIsAWordToo) {
  EXPECT_EQ(print({"help"}, 0), print({"--help"}, 0));
  EXPECT_EQ(print({"help", "paint"}, 0), print({"paint", "--help"}, 0));
  EXPECT_EQ(print({"help", "paintt"}, kExitUsage),
            "toy: there is no subcommand \"paintt\"; did you mean paint? See toy --help\n");
  EXPECT_EQ(run({"paint", "help"}), 100);
  EXPECT_EQ(file_, "help");
}

TEST_F(CommandLineTest, HelpShowsAnArgumentAsRequiredThatOnlyAFormerOptionReplaces) {
  EXPECT_THAT(print({"paint", "--help"}, 0), HasSubstr("Usage: toy paint [OPTIONS] FILE\n"));
}

TEST_F(CommandLineTest, CompletionFollowsTheTypeNames) {
  CLI::App app;
  std::string text;
  const auto valueOf = [&](const std::string& type) {
    CLI::App each;
    return completionOf(*each.add_option("--x", text)->type_name(type));
  };
  EXPECT_EQ(valueOf("TEXT").words, std::vector<std::string>());
  EXPECT_EQ(valueOf("none|lookup:A,B|yes").words, (std::vector<std::string>{"none", "yes"}));
  EXPECT_TRUE(valueOf("JSON|FILE").is_file);
  EXPECT_TRUE(valueOf("FOLDER").is_folder);
  EXPECT_TRUE(completionOf(*app.add_option("STORE_DIR", text)->type_name("")).is_folder);
}

TEST_F(CommandLineTest, TheZshScriptEscapesWhatZshReads) {
  const CommandLine command_line("toy", "1", "",
                                 {{"walk", "It's: a walk.", [this](CLI::App& app) {
                                     app.add_option("--how", file_, "[fast]: it's fun")->type_name("a:b|c");
                                     return [] { return 0; };
                                   }}});
  const auto read = command_line.read({"completion", "zsh"});
  const std::string script = std::get<Printed>(read).text;
  EXPECT_THAT(script, StartsWith("#compdef toy\n"));
  EXPECT_THAT(script, HasSubstr(R"('--how=[\[fast\]\: it'\''s fun]:a\:b|c:(a\:b c)')"));
  EXPECT_THAT(script, HasSubstr(R"('walk:It'\''s\: a walk.')"));
}

}  // namespace
}  // namespace morvik_command_line
