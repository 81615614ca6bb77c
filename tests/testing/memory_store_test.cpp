#include "testing/memory_store.h"

#include <gtest/gtest.h>

#include <thread>

namespace morvik::test {
namespace {

using testing::MemoryStore;
using Texts = std::vector<std::string>;

TEST(MemoryStore, ShowsAWriteAtOnce) {
  MemoryStore store;
  EXPECT_TRUE(store.get("age").isAbsent());
  store.set("age", 30);
  EXPECT_EQ(store.get("age"), kit::Value(30));
}

TEST(MemoryStore, TurnsADyingThreadAwayWhileItIsInUse) {
  MemoryStore store;
  store.set("age", 30);
  store.setInUse(true);
  EXPECT_EQ(store.tryGet("age"), std::nullopt);
  EXPECT_FALSE(store.trySetAndSynchronize("age", 31));
  EXPECT_EQ(store.get("age"), kit::Value(30));
  store.setInUse(false);
  EXPECT_TRUE(store.trySetAndSynchronize("age", 31));
  EXPECT_EQ(store.journalTexts(), (Texts{"age", "age", "synchronize"}));
}

TEST(MemoryStore, KeepsNothingBeyondTheProcessWhenToldSo) {
  MemoryStore store;
  store.setKeepsNothing(true);
  store.set("age", 30);
  EXPECT_FALSE(store.synchronize());
  store.commitTurn();
  EXPECT_FALSE(store.trySetAndSynchronize("age", 31));
  EXPECT_EQ(store.get("age"), kit::Value(30));
  store.kill();
  EXPECT_TRUE(store.get("age").isAbsent());
}

TEST(MemoryStore, LosesAtAKillWhatNothingCommitted) {
  MemoryStore store;
  store.set("kept", 1);
  store.synchronize();
  store.set("kept", 2);
  store.set("lost", true);
  EXPECT_EQ(store.uncommittedWrites(), 2u);
  store.kill();
  EXPECT_EQ(store.get("kept"), kit::Value(1));
  EXPECT_TRUE(store.get("lost").isAbsent());
  EXPECT_EQ(store.uncommittedWrites(), 0u);
}

TEST(MemoryStore, KeepsWhatTheEndOfATurnCommitted) {
  MemoryStore store;
  store.set("kept", "text");
  store.commitTurn();
  store.kill();
  EXPECT_EQ(store.get("kept"), kit::Value("text"));
  EXPECT_EQ(store.synchronizeCount(), 0u);
}

TEST(MemoryStore, RemovesWithAnAbsentValueAndRemembersNull) {
  MemoryStore store;
  store.set("gone", 1);
  store.set("null", kit::Value::null());
  store.synchronize();
  store.set("gone", kit::Value());
  store.synchronize();
  EXPECT_TRUE(store.get("gone").isAbsent());
  EXPECT_TRUE(store.get("null").isNull());
  EXPECT_EQ(store.committed().size(), 1u);
}

TEST(MemoryStore, SurvivesIntoASecondProcess) {
  MemoryStore first;
  first.set("kept", kit::Array{1, 2});
  first.synchronize();
  first.set("lost", 1);
  MemoryStore second(first.committed());
  EXPECT_EQ(second.get("kept"), kit::Value(kit::Array{1, 2}));
  EXPECT_TRUE(second.get("lost").isAbsent());
  second.kill();
  EXPECT_EQ(second.get("kept"), kit::Value(kit::Array{1, 2})) << "what it found counts as committed";
}

TEST(MemoryStore, NotesWritesAndCommitsInOrder) {
  MemoryStore store;
  store.set("a", 1);
  store.set("b", 2);
  store.synchronize();
  store.set("a", kit::Value());
  store.commitTurn();
  store.commitTurn();
  EXPECT_EQ(store.journalTexts(), (Texts{"a", "b", "synchronize", "a", "end of turn"}));
  EXPECT_EQ(store.journal()[1].value, kit::Value(2));
  EXPECT_TRUE(store.journal()[3].value.isAbsent());
  EXPECT_EQ(store.synchronizeCount(), 1u);
  store.clearJournal();
  EXPECT_EQ(store.journalTexts(), Texts{});
}

TEST(MemoryStore, TakesCallsFromSeveralThreads) {
  MemoryStore store;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&store, thread] {
      const std::string key = std::to_string(thread);
      for (int i = 0; i < 200; ++i) {
        store.set(key, i);
        EXPECT_EQ(store.get(key), kit::Value(i));
        if (i % 10 == 0)
          store.synchronize();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(store.contents().size(), 4u);
  EXPECT_EQ(store.journal().size(), 4u * 220u);
}

}  // namespace
}  // namespace morvik::test
