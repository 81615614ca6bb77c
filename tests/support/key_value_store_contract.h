// What every implementation of the key-value store promises.
//
// A harness is default-constructible and has
//  kit::KeyValueStore& store();   the running process's store
//  void killAndRestart();         that process dies at once; store() is then the next one's
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kit/key_value_store.h"
#include "kit/value.h"

namespace morvik::test {

/// A dictionary with one entry.
inline kit::Value recordOf(const char* key, kit::Value value) {
  kit::MutableDictionary record;
  record.set(key, std::move(value));
  return kit::Value(std::move(record));
}

template <class Harness>
class KeyValueStoreContract : public ::testing::Test {
 protected:
  kit::KeyValueStore& store() { return harness_.store(); }
  void append(const char* key, kit::Value element) {
    kit::MutableArray list(store().get(key));
    list.append(std::move(element));
    store().set(key, kit::Value(std::move(list)));
  }
  Harness harness_;
};

TYPED_TEST_SUITE_P(KeyValueStoreContract);

TYPED_TEST_P(KeyValueStoreContract, WhatWasNeverSetIsAbsent) {
  EXPECT_TRUE(this->store().get("nothing").isAbsent());
  this->store().synchronize();
  EXPECT_TRUE(this->store().get("nothing").isAbsent());
}

TYPED_TEST_P(KeyValueStoreContract, AWriteIsSeenAtOnceWithoutSynchronize) {
  this->store().set("count", 7);
  EXPECT_EQ(this->store().get("count"), kit::Value(7));
}

TYPED_TEST_P(KeyValueStoreContract, AWriteReplacesTheValueWhole) {
  this->store().set("record", kit::Dictionary{{"a", 1}, {"b", 2}});
  this->store().set("record", recordOf("c", 3));
  this->store().synchronize();
  this->harness_.killAndRestart();
  EXPECT_EQ(this->store().get("record"), recordOf("c", 3));
}

TYPED_TEST_P(KeyValueStoreContract, SettingTheAbsentValueRemovesTheKey) {
  this->store().set("text", "here");
  this->store().set("list", kit::Array{1, 2});
  this->store().synchronize();
  this->store().set("text", kit::Value());
  this->store().set("list", kit::Value());
  EXPECT_TRUE(this->store().get("text").isAbsent());
  this->store().synchronize();
  this->harness_.killAndRestart();
  EXPECT_TRUE(this->store().get("text").isAbsent());
  EXPECT_TRUE(this->store().get("list").isAbsent());
}

TYPED_TEST_P(KeyValueStoreContract, WhatWasSynchronizedSurvivesTheDeathOfTheProcess) {
  const std::vector<std::pair<const char*, kit::Value>> values = {
      {"true", true},
      {"null", kit::Value::null()},
      {"integer", int64_t{-9223372036854775807}},
      {"unsigned", uint64_t{18446744073709551615u}},
      {"double", 0.1},
      {"text", "caf\xC3\xA9"},
      {"empty text", ""},
      {"date", kit::Date{-1}},
      {"list", kit::Array{1, "two", kit::Array{3.0}, recordOf("four", kit::Value::null())}},
      {"dictionary", kit::Dictionary{{"list", kit::Array{}}, {"none", kit::Dictionary{}}}},
  };
  for (const auto& [key, value] : values)
    this->store().set(key, value);
  this->store().synchronize();
  this->harness_.killAndRestart();
  for (const auto& [key, value] : values) {
    EXPECT_EQ(this->store().get(key), value) << key;
    EXPECT_EQ(this->store().get(key).kind(), value.kind()) << key;
  }
}

TYPED_TEST_P(KeyValueStoreContract, AnEmptyListIsNotAnAbsentOne) {
  this->store().set("cleared", kit::Array{1});
  this->store().synchronize();
  this->store().set("cleared", kit::Array{});
  this->store().set("begun", kit::Array{});
  this->store().synchronize();
  this->harness_.killAndRestart();
  EXPECT_TRUE(this->store().get("cleared").isArray());
  EXPECT_EQ(this->store().get("cleared").size(), 0u);
  EXPECT_TRUE(this->store().get("begun").isArray());
}

TYPED_TEST_P(KeyValueStoreContract, AppendBeginsAListAndContinuesOne) {
  this->store().append("new", 1);
  this->store().set("old", kit::Array{1});
  this->store().append("old", 2);
  this->store().set("text", "is no list");
  this->store().append("text", 3);
  this->store().synchronize();
  this->harness_.killAndRestart();
  EXPECT_EQ(this->store().get("new"), kit::Value(kit::Array{1}));
  EXPECT_EQ(this->store().get("old"), kit::Value(kit::Array{1, 2}));
  EXPECT_EQ(this->store().get("text"), kit::Value(kit::Array{3}));
}

TYPED_TEST_P(KeyValueStoreContract, WhatIsAppendedWhileAListIsRewrittenStaysBehindIt) {
  this->store().set("list", kit::Array{1, 2, 3});
  const kit::Value before = this->store().get("list");
  this->store().append("list", 4);
  this->store().replace("list", before, kit::Array{2});
  EXPECT_EQ(this->store().get("list"), kit::Value(kit::Array{2, 4}));
  this->store().synchronize();
  this->harness_.killAndRestart();
  EXPECT_EQ(this->store().get("list"), kit::Value(kit::Array{2, 4}));
  this->store().append("begun", 1);
  this->store().replace("begun", kit::Value(), kit::Array{});
  EXPECT_EQ(this->store().get("begun"), kit::Value(kit::Array{1})) << "in a new list every element is new";
}

TYPED_TEST_P(KeyValueStoreContract, OfAListThatIsNoContinuationNothingStaysBehindTheOneThatReplacesIt) {
  this->store().set("list", kit::Array{1, 2});
  const kit::Value before = this->store().get("list");
  this->store().set("list", kit::Array{7, 8, 9});
  this->store().replace("list", before, kit::Array{2});
  EXPECT_EQ(this->store().get("list"), kit::Value(kit::Array{2}));
}

TYPED_TEST_P(KeyValueStoreContract, AListGrowsAndShrinksAcrossRestarts) {
  for (int i = 0; i < 10; ++i)
    this->append("queue", recordOf("id", i));
  this->store().synchronize();
  this->harness_.killAndRestart();
  this->append("queue", recordOf("id", 10));
  kit::MutableArray trimmed(this->store().get("queue"));
  trimmed.retainIf([](const kit::Value& record) { return record["id"].integer() % 3 != 0; });
  this->store().set("queue", kit::Value(std::move(trimmed)));
  this->store().synchronize();
  this->harness_.killAndRestart();
  kit::MutableArray expected;
  for (const int id : {1, 2, 4, 5, 7, 8, 10})
    expected.append(recordOf("id", id));
  EXPECT_EQ(this->store().get("queue"), kit::Value(std::move(expected)));
}

TYPED_TEST_P(KeyValueStoreContract, AListThatLosesItsRecordsOneByOneKeepsTheOthers) {
  std::vector<int> left;
  for (int id = 0; id < 200; ++id) {
    this->append("queue", recordOf("id", id));
    left.push_back(id);
  }
  this->store().synchronize();
  for (size_t step = 0; step < 150; ++step) {
    const size_t index = step * 37 % left.size();
    kit::MutableArray list(this->store().get("queue"));
    list.removeAt(index);
    this->store().set("queue", kit::Value(std::move(list)));
    this->store().synchronize();
    left.erase(left.begin() + static_cast<std::ptrdiff_t>(index));
    if (step % 50 == 20)
      this->harness_.killAndRestart();
  }
  this->harness_.killAndRestart();
  kit::MutableArray expected;
  for (const int id : left)
    expected.append(recordOf("id", id));
  EXPECT_EQ(this->store().get("queue"), kit::Value(std::move(expected)));
}

TYPED_TEST_P(KeyValueStoreContract, AValueTakenEarlierDoesNotChange) {
  this->append("queue", 1);
  const kit::Value before = this->store().get("queue");
  this->append("queue", 2);
  EXPECT_EQ(before, kit::Value(kit::Array{1}));
  EXPECT_EQ(this->store().get("queue"), kit::Value(kit::Array{1, 2}));
}

TYPED_TEST_P(KeyValueStoreContract, AValueMayChangeItsKind) {
  this->store().set("value", kit::Array{1, 2, 3});
  this->store().synchronize();
  this->store().set("value", "text");
  this->store().synchronize();
  this->store().set("value", kit::Array{4});
  this->store().synchronize();
  this->harness_.killAndRestart();
  EXPECT_EQ(this->store().get("value"), kit::Value(kit::Array{4}));
}

TYPED_TEST_P(KeyValueStoreContract, SaysThatWhatItSynchronizedIsKept) {
  EXPECT_TRUE(this->store().synchronize());
  this->store().set("a", 1);
  EXPECT_TRUE(this->store().synchronize());
}

TYPED_TEST_P(KeyValueStoreContract, ServesADyingThreadAtOnceWhenNobodyElseIsThere) {
  this->store().set("earlier", 1);
  EXPECT_EQ(this->store().tryGet("earlier"), kit::Value(1));
  ASSERT_TRUE(this->store().tryGet("nothing").has_value());
  EXPECT_TRUE(this->store().tryGet("nothing")->isAbsent());
  EXPECT_TRUE(this->store().trySetAndSynchronize("list", kit::Array{1}));
  EXPECT_TRUE(this->store().trySetAndSynchronize("list", kit::Array{1, 2}));
  EXPECT_EQ(this->store().get("list"), kit::Value(kit::Array{1, 2}));
  this->harness_.killAndRestart();
  EXPECT_EQ(this->store().get("list"), kit::Value(kit::Array{1, 2}));
  EXPECT_EQ(this->store().get("earlier"), kit::Value(1));
}

TYPED_TEST_P(KeyValueStoreContract, NeitherLosesNorDoublesWhatADyingThreadWritesAmongOthers) {
  std::thread other([this] {
    for (int i = 0; i < 300; ++i) {
      this->store().set("other", i);
      this->store().synchronize();
    }
  });
  kit::MutableArray written;
  for (int i = 0; i < 300; ++i) {
    kit::MutableArray next(written);
    next.append(i);
    if (this->store().trySetAndSynchronize("dying", kit::Value(kit::MutableArray(next))))
      written = std::move(next);
    const auto read = this->store().tryGet("dying");
    EXPECT_TRUE(!read || read->size() == written.size());
  }
  other.join();
  this->harness_.killAndRestart();
  EXPECT_EQ(this->store().get("dying").size(), written.size());
  EXPECT_EQ(this->store().get("other"), kit::Value(299));
}

TYPED_TEST_P(KeyValueStoreContract, IsSafePerCallFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kWrites = 100;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this, thread] {
      const std::string key = "thread " + std::to_string(thread);
      for (int i = 1; i <= kWrites; ++i) {
        kit::MutableArray list(this->store().get(key));
        list.append(i);
        this->store().set(key, kit::Value(std::move(list)));
        this->store().get("thread 0");
        this->store().synchronize();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  this->harness_.killAndRestart();
  for (int thread = 0; thread < kThreads; ++thread) {
    const kit::Value list = this->store().get("thread " + std::to_string(thread));
    ASSERT_EQ(list.size(), static_cast<size_t>(kWrites));
    for (int i = 0; i < kWrites; ++i)
      EXPECT_EQ(list.array()[static_cast<size_t>(i)], kit::Value(i + 1));
  }
}

REGISTER_TYPED_TEST_SUITE_P(KeyValueStoreContract, WhatWasNeverSetIsAbsent, AWriteIsSeenAtOnceWithoutSynchronize,
                            AWriteReplacesTheValueWhole, SettingTheAbsentValueRemovesTheKey,
                            WhatWasSynchronizedSurvivesTheDeathOfTheProcess, AnEmptyListIsNotAnAbsentOne,
                            AppendBeginsAListAndContinuesOne, WhatIsAppendedWhileAListIsRewrittenStaysBehindIt,
                            OfAListThatIsNoContinuationNothingStaysBehindTheOneThatReplacesIt,
                            AListGrowsAndShrinksAcrossRestarts, AListThatLosesItsRecordsOneByOneKeepsTheOthers,
                            AValueTakenEarlierDoesNotChange, AValueMayChangeItsKind, SaysThatWhatItSynchronizedIsKept,
                            ServesADyingThreadAtOnceWhenNobodyElseIsThere,
                            NeitherLosesNorDoublesWhatADyingThreadWritesAmongOthers, IsSafePerCallFromManyThreads);

}  // namespace morvik::test
