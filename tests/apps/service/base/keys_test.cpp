#include "apps/service/base/keys.h"

#include <gtest/gtest.h>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

std::string complaintAbout(const std::string& text) {
  try {
    parseKeys(text, "keys.txt");
  } catch (const SetupError& error) {
    return error.what();
  }
  return "none";
}

TEST(Keys, ReadsAFile) {
  const Keys keys = parseKeys("# the demo app\napp-key=a=b\r\n\nhash-key=h h\ntracking-key=t", "keys.txt");
  EXPECT_EQ("a=b", keys.app_key);
  EXPECT_EQ("h h", keys.hash_key);
  EXPECT_EQ("t", keys.tracking_key);
}

TEST(Keys, AnEmptyTrackingKeyIsAllowed) {
  EXPECT_EQ("", parseKeys("app-key=a\nhash-key=h\ntracking-key=\n", "keys.txt").tracking_key);
}

TEST(Keys, ABadLineIsNamedByItsNumberAndNeverShown) {
  EXPECT_EQ("keys.txt, line 2: expected app-key=, hash-key= or tracking-key= and the key",
            complaintAbout("app-key=a\nsecret-without-name\n"));
  EXPECT_EQ("keys.txt, line 1: expected app-key=, hash-key= or tracking-key= and the key",
            complaintAbout("haskey=secret"));
}

TEST(Keys, AKeyGivenTwiceIsRefused) {
  EXPECT_EQ("keys.txt, line 2: this key is given a second time; keep one of the lines",
            complaintAbout("hash-key=a\nhash-key=b\n"));
}

TEST(Keys, TrackingHasItsOwnKeyAndTheOthersTheHashKeyTwice) {
  const Keys keys{"a", "hash", "track"};
  EXPECT_EQ("track", keyText(keys, KeyChoice::kTrackingKey));
  EXPECT_EQ("hashhash", keyText(keys, KeyChoice::kHashKeyTwice));
}

TEST(Keys, AnOptionWinsOverTheFile) {
  const Keys merged = mergeKeys({"option", "", ""}, {"file", "hash", "track"});
  EXPECT_EQ("option", merged.app_key);
  EXPECT_EQ("hash", merged.hash_key);
  EXPECT_EQ("track", merged.tracking_key);
}

}  // namespace
}  // namespace morvik_service
