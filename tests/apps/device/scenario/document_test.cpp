// Compares docs/scenarios.md with the format that is read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <variant>

#include "apps/device/program.h"
#include "apps/device/scenario/scenario_reader.h"
#include "apps/device/verbs.h"
#include "tests/support/captured_file.h"
#include "tests/support/paths.h"
#include "tests/support/scratch_folder.h"

namespace morvik_device::scenario {
namespace {

std::string document() {
  return morvik::test::bytesOf(morvik::test::sourceDir() + "/docs/scenarios.md");
}

/// The keys that the reader names when it finds an unknown one.
std::vector<std::string> keysOf(const std::string& scenario) {
  const auto read = readScenario(scenario, "keys");
  const std::string mistake = std::holds_alternative<std::string>(read) ? std::get<std::string>(read) : "";
  const std::string kStart = "expected one of: ";
  const size_t start = mistake.find(kStart);
  EXPECT_NE(start, std::string::npos) << mistake;
  std::vector<std::string> keys;
  std::istringstream list(start == std::string::npos ? "" : mistake.substr(start + kStart.size()));
  for (std::string key; std::getline(list, key, ',');)
    keys.push_back(key.substr(key.find_first_not_of(' ')));
  return keys;
}

TEST(ScenarioDocument, HasEveryKeyThatIsRead) {
  const std::string text = document();
  size_t count = 0;
  for (const char* scenario :
       {"unknown: 1", "story: s\ndevice: {unknown: 1}", "story: s\nsteps: [{unknown: 1}]",
        "story: s\nnetwork: [{unknown: 1}]", "story: s\nservice: {unknown: 1}",
        "story: s\nservice: {answers: {unknown: 1}}", "story: s\nservice: {answers: {crash: {unknown: 1}}}",
        "story: s\nsteps: [{do: active}]\nexpect: {unknown: 1}"}) {
    for (const std::string& key : keysOf(scenario)) {
      EXPECT_THAT(text, ::testing::HasSubstr("`" + key + "`")) << scenario;
      ++count;
    }
  }
  EXPECT_GT(count, 50u);
}

/// The verbs with their arguments, as the rows of the document's table have them.
std::vector<std::string> documentedVerbs() {
  const std::string text = document();
  const size_t begin = text.find("\n## Verbs\n");
  std::istringstream section(begin == std::string::npos ? ""
                                                        : text.substr(begin, text.find("\n## ", begin + 1) - begin));
  const std::string kRow = "| `";
  std::vector<std::string> verbs;
  for (std::string line; std::getline(section, line);) {
    if (!line.starts_with(kRow))
      continue;
    std::string form = line.substr(kRow.size(), line.find('`', kRow.size()) - kRow.size());
    std::erase(form, '\\');  // of "\|", a bar within a table
    verbs.push_back(form);
  }
  return verbs;
}

TEST(ScenarioDocument, ListsExactlyTheVerbsThatThereAre) {
  std::vector<std::string> known;
  for (const Verb& verb : verbs())
    known.push_back(std::string(verb.name) + (verb.arguments.empty() ? "" : " ") + std::string(verb.arguments));
  EXPECT_THAT(documentedVerbs(), ::testing::ElementsAreArray(known));
}

TEST(ScenarioDocument, HasAStoryThatComesOutAsItExpects) {
  const std::string text = document();
  const std::string kFence = "```yaml\n";
  const size_t start = text.find(kFence);
  ASSERT_NE(start, std::string::npos);
  const size_t story = start + kFence.size();
  const morvik::test::ScratchFolder folder;
  const std::string file = folder / "story.yaml";
  morvik::test::writeBytes(file, text.substr(story, text.find("```", story) - story));
  morvik::test::CapturedFile output;
  std::istringstream no_input;
  std::ostringstream errors;
  EXPECT_EQ(runProgram({"simulate", file}, {no_input, output.file(), errors}), 0) << errors.str() << output.text();
}

}  // namespace
}  // namespace morvik_device::scenario
