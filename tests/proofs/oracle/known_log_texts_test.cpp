#include "proofs/oracle/known_log_texts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/paths.h"

namespace morvik::proofs {
namespace {

using ::testing::IsEmpty;

using FileAndText = std::pair<std::string, std::string>;

/// What a text of the log begins with.
constexpr std::array<std::string_view, 7> kBeginnings = {
    "MRVK_QA-",         "RVK_QA-",         "! MRVK_QA-", "Morvik host:", "SearchAds Attribution",
    "Conversion JSON:", "IDFA not passed!"};

bool beginsLikeALogText(std::string_view text) {
  return std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [text](std::string_view beginning) { return text.starts_with(beginning); });
}

std::string withoutEscapes(const std::string& quoted) {
  std::string text;
  for (size_t i = 0; i < quoted.size(); ++i) {
    if (quoted[i] != '\\') {
      text += quoted[i];
      continue;
    }
    ++i;
    text += quoted[i] == 'n' ? '\n' : quoted[i];
  }
  return text;
}

std::string withoutComments(const std::string& source) {
  static const std::regex kQuotedOrComment(R"re(("(?:[^"\\\n]|\\.)*")|//[^\n]*)re");
  return std::regex_replace(source, kQuotedOrComment, "$1");
}

/// The quoted texts of a source, those that stand side by side joined.
std::vector<std::string> quotedTexts(const std::string& source) {
  static const std::regex kQuoted(R"re("((?:[^"\\\n]|\\.)*)")re");
  static const std::regex kSideBySide(R"re("(?:[^"\\\n]|\\.)*"(?:\s*"(?:[^"\\\n]|\\.)*")*)re");
  std::vector<std::string> texts;
  for (std::sregex_iterator run(source.begin(), source.end(), kSideBySide), end; run != end; ++run) {
    const std::string joined = run->str();
    std::string text;
    for (std::sregex_iterator each(joined.begin(), joined.end(), kQuoted); each != end; ++each)
      text += (*each)[1].str();
    texts.push_back(withoutEscapes(text));
  }
  return texts;
}

std::set<FileAndText> textsInTheSources() {
  std::set<FileAndText> texts;
  for (const char* const folder : {"MorvikCoreLib", "services", "runtime", "host"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(test::sourceDir() + "/" + folder)) {
      if (entry.path().extension() != ".cpp" && entry.path().extension() != ".h")
        continue;
      std::ifstream file(entry.path());
      const std::string source((std::istreambuf_iterator<char>(file)), {});
      for (const std::string& text : quotedTexts(withoutComments(source))) {
        if (beginsLikeALogText(text))
          texts.emplace(entry.path().filename().string(), text);
      }
    }
  }
  return texts;
}

TEST(KnownLogTexts, AreThoseOfTheSources) {
  std::set<FileAndText> missing = textsInTheSources();
  std::set<FileAndText> too_many;
  ASSERT_GT(missing.size(), 100U);
  for (const KnownLogText& each : knownLogTexts()) {
    const FileAndText row(each.file, each.text);
    if (missing.erase(row) == 0)
      too_many.insert(row);
  }
  EXPECT_THAT(missing, IsEmpty()) << "to be listed in proofs/oracle/known_log_texts.inc";
  EXPECT_THAT(too_many, IsEmpty()) << "to be struck off proofs/oracle/known_log_texts.inc";
}

TEST(KnownLogTexts, KnowALineByItsFileAndItsText) {
  const std::string prefix = "DEBUG Kesmo:tracking.cpp:17:-[MorvikCoreLib tracking:]_block_invoke ";
  EXPECT_EQ(kindOfLogLine(prefix + "MRVK_QA-tracking_JSON: {\"Result\":true}"), LogLineKind::kKnown);
  EXPECT_EQ(kindOfLogLine(prefix + "MRVK_QA-Recieved an HTTP 503"), LogLineKind::kKnown);
  EXPECT_EQ(kindOfLogLine(prefix + "MRVK_QA-getSchedule_JSON: {}"), LogLineKind::kUnknown) << "of another file";
  EXPECT_EQ(kindOfLogLine(prefix + "MRVK_QA-Received an HTTP 503"), LogLineKind::kUnknown);
  EXPECT_EQ(kindOfLogLine(""), LogLineKind::kUnknown);
  EXPECT_EQ(kindOfLogLine("ERROR"), LogLineKind::kUnknown);
  EXPECT_EQ(kindOfLogLine("TRACE Kesmo:"), LogLineKind::kUnknown);
}

TEST(KnownLogTexts, KnowALineWithoutAPrefixOneThatIsPassedOnAndOneThatEndsInWords) {
  EXPECT_EQ(kindOfLogLine("Morvik host: the store \"/a\" can be synced to the disk again."), LogLineKind::kKnown);
  EXPECT_NE(kindOfLogLine("Morvik host: the store \"/a\" can be synced to the disk again"), LogLineKind::kKnown);
  EXPECT_EQ(kindOfLogLine("ERROR Kesmo:logged_lines.cpp:17:-[MorvikCore store] Morvik host: the store \"/a\" can be "
                          "synced to the disk again."),
            LogLineKind::kKnown);
  EXPECT_EQ(kindOfLogLine("SearchAds Attribution Dictionary: {\"a\":1}"), LogLineKind::kKnown);
}

TEST(KnownLogTexts, TakeWhatAGuardCaughtForAnAlarm) {
  EXPECT_EQ(kindOfLogLine("ERROR Kesmo:lifecycle.cpp:17:-[MorvikCoreLib startSession] "
                          "MRVK_QA-[MorvikCoreLib error] Exception from startSession!"
                          "\n                          exception print: out of luck"),
            LogLineKind::kAlarm);
}

}  // namespace
}  // namespace morvik::proofs
