#include "runtime/crash/crash_note.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace morvik::runtime {
namespace {

std::string latestOf(CrashNote& note) {
  const std::string latest(note.beginReading());
  note.endReading();
  return latest;
}

TEST(CrashNote, IsTheLatestText) {
  CrashNote note;
  EXPECT_EQ(latestOf(note), "");
  for (const char* text : {"one", "two", "three"}) {
    note.set(text);
    EXPECT_EQ(latestOf(note), text);
  }
}

TEST(CrashNote, PastTheLimitIsLeftOut) {
  CrashNote note;
  note.set(std::string(kMaxCrashNoteBytes, 'x'));
  EXPECT_EQ(latestOf(note).size(), kMaxCrashNoteBytes);
  note.set(std::string(kMaxCrashNoteBytes + 1, 'x'));
  EXPECT_EQ(latestOf(note), "") << "and not the one before, which may be wrong by now";
}

TEST(CrashNote, StaysAsItIsWhileItIsRead) {
  CrashNote note;
  note.set("one");
  const std::string_view read = note.beginReading();
  note.set("two");
  note.set("three");
  EXPECT_EQ(read, "one");
  note.endReading();
  note.set("four");
  EXPECT_EQ(latestOf(note), "four");
}

TEST(CrashNote, IsWholeWhileAnotherThreadSetsIt) {
  CrashNote note;
  std::atomic<bool> enough = false;
  std::thread setter([&] {
    for (size_t i = 0; !enough; ++i)
      note.set(std::string(1 + i % 100, static_cast<char>('a' + i % 20)));
  });
  for (int i = 0; i < 10'000; ++i) {
    const std::string text = latestOf(note);
    EXPECT_EQ(text, std::string(text.size(), text.empty() ? ' ' : text[0]));
  }
  enough = true;
  setter.join();
}

}  // namespace
}  // namespace morvik::runtime
