#include "apps/device/output.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// What another reader of the file sees, without what our stream still buffers.
std::string written(std::FILE* file) {
  std::string text(4096, '\0');
  const ssize_t size = pread(fileno(file), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return text;
}

TEST(Output, AVerbThatIsDoneIsOneLineWrittenAtOnce) {
  const File file(std::tmpfile());
  Output output(file.get());
  output.verbDone("event", {});
  EXPECT_EQ(written(file.get()), "{\"verb\":\"event\",\"ok\":true}\n");
}

TEST(Output, GivesItsLinesToATakerAsValues) {
  std::vector<kit::Value> lines;
  Output output([&lines](const kit::Value& line) { lines.push_back(line); });
  output.callback("didReceiveDeeplink:", {"app://offer"});
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            kit::Value(kit::Dictionary{{"callback", "didReceiveDeeplink:"}, {"args", kit::Array{"app://offer"}}}));
  EXPECT_FALSE(output.failed());
}

TEST(Output, AVerbThatWasRefusedSaysWhy) {
  const File file(std::tmpfile());
  Output output(file.get());
  Outcome outcome;
  outcome.refusal = "no";
  outcome.fields.set("retries", 1);
  output.verbDone("settle", outcome);
  EXPECT_EQ(written(file.get()), "{\"verb\":\"settle\",\"ok\":false,\"error\":\"no\",\"retries\":1}\n");
}

TEST(Output, ValuesAreJsonWithDatesAsTextAndLineFeedsEscaped) {
  const File file(std::tmpfile());
  Output output(file.get());
  Outcome outcome;
  outcome.fields.set("values", kit::Dictionary{{"at", kit::Date::fromSeconds(1714564800)}, {"text", "a\nb"}});
  output.verbDone("store", outcome);
  EXPECT_EQ(written(file.get()),
            "{\"verb\":\"store\",\"ok\":true,\"values\":{\"at\":\"2024-05-01T12:00:00Z\",\"text\":\"a\\nb\"}}\n");
}

TEST(Output, ACallbackShowsItsSelectorAndArguments) {
  const File file(std::tmpfile());
  Output output(file.get());
  output.callback("didSaveConversionKey:subReferralKey:", {12, "34"});
  EXPECT_EQ(written(file.get()), "{\"callback\":\"didSaveConversionKey:subReferralKey:\",\"args\":[12,\"34\"]}\n");
}

TEST(Output, ALineThatCannotBeWrittenIsNoticed) {
  const File full(std::fopen("/dev/full", "w"));
  ASSERT_NE(full, nullptr);
  Output output(full.get());
  EXPECT_FALSE(output.failed());
  output.verbDone("active", {});
  EXPECT_TRUE(output.failed());
}

}  // namespace
}  // namespace morvik_device
