// A store whose process runs out of memory in the middle of a commit.
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <utility>

#include "host/store/sqlite_store.h"
#include "testing/recording_log.h"
#include "tests/host/failing_allocations.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;

class MemoryRunsOut : public ::testing::Test {
 protected:
  SqliteStoreOptions options() const {
    SqliteStoreOptions options;
    options.place.folder = folder_path_;
    options.flush_delay = std::chrono::hours(24);
    return options;
  }
  static std::string nameOf(const char* kind, int number) { return std::string(kind) + '-' + std::to_string(number); }
  static void record(SqliteStore& store, int number) {
    store.append(nameOf("list", number), Dictionary{{"id", number}});
    store.append(nameOf("list", number), number);
    store.set(nameOf("number", number), number);
  }
  /// What another process would find if this one died now.
  Value inTheFile(const std::string& key) {
    SqliteStoreOptions inspector = options();
    inspector.read_only = true;
    testing::RecordingLog unused;
    return SqliteStore(inspector, unused).get(key);
  }

  const test::ScratchFolder folder_;
  std::string folder_path_ = folder_.path();
  testing::RecordingLog log_;
};

TEST_F(MemoryRunsOut, AtAnyAllocationOfACommitItsRecordsStayAndTheNextCommitTakesThemOnce) {
  constexpr int kProperties = 8;
  int rounds = 0;
  bool has_thrown = true;
  for (uint64_t succeeding = 0; has_thrown; ++succeeding, ++rounds) {
    const test::ScratchFolder folder;
    folder_path_ = folder.path();
    SqliteStore store(options(), log_);
    for (int i = 0; i < kProperties; ++i)
      record(store, i);
    test::FailingAllocations memory(succeeding);
    has_thrown = false;
    try {
      store.synchronize();
    } catch (const std::bad_alloc&) {
      has_thrown = true;
    }
    memory.over();
    record(store, kProperties);
    ASSERT_TRUE(store.synchronize()) << "after " << succeeding << " allocations";
    for (int i = 0; i <= kProperties; ++i) {
      ASSERT_EQ(inTheFile(nameOf("list", i)), Value(Array{Dictionary{{"id", i}}, i}));
      ASSERT_EQ(inTheFile(nameOf("number", i)), Value(i));
    }
  }
  EXPECT_GT(rounds, 10) << "it allocates, so it can run out";
  EXPECT_TRUE(log_.lines().empty()) << "no file was taken for a bad one";
}

TEST_F(MemoryRunsOut, AtAnyAllocationOfAWriteTheStoreIsAsBeforeItOrAsAfterIt) {
  SqliteStore store(options(), log_);
  const std::string name(100, 'n');
  bool has_thrown = true;
  int properties = 0;
  for (uint64_t succeeding = 0; has_thrown; ++succeeding) {
    const std::string key = name + std::to_string(++properties);
    const Value element = Dictionary{{"id", properties}};
    test::FailingAllocations memory(succeeding);
    has_thrown = false;
    try {
      store.append(key, element);
      store.set(key + "-value", element);
    } catch (const std::bad_alloc&) {
      has_thrown = true;
    }
    memory.over();
    const Value list = store.get(key);
    const Value value = store.get(key + "-value");
    ASSERT_TRUE(store.synchronize());
    ASSERT_EQ(inTheFile(key), list);
    ASSERT_EQ(inTheFile(key + "-value"), value);
  }
  EXPECT_GT(properties, 3) << "it allocates, so it can run out";
}

}  // namespace
}  // namespace morvik::host
