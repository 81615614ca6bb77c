#include "apps/service/store/readers.h"

#include <gtest/gtest.h>

#include <deque>
#include <future>
#include <memory>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

class ReadersTest : public testing::Test {
 protected:
  ReadersTest() { writer_.exec("PRAGMA journal_mode=WAL; CREATE TABLE t(x); INSERT INTO t VALUES(1)"); }
  static std::int64_t count(Readers::Lease& reader) {
    SQLite::Statement query(reader.database(), "SELECT count(*) FROM t");
    query.executeStep();
    return query.getColumn(0).getInt64();
  }

  test::TemporaryFolder folder_;
  SQLite::Database writer_{folder_.path("file"), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE};
  Readers readers_{folder_.path("file")};
};

TEST_F(ReadersTest, OneReaderSeesOneCommitAndTheNextTheNext) {
  {
    Readers::Lease reader = readers_.take();
    EXPECT_EQ(1, count(reader));
    writer_.exec("INSERT INTO t VALUES(2)");
    EXPECT_EQ(1, count(reader));
  }
  Readers::Lease reader = readers_.take();
  EXPECT_EQ(2, count(reader));
}

TEST_F(ReadersTest, AReaderChangesNothing) {
  Readers::Lease reader = readers_.take();
  EXPECT_THROW(reader.database().exec("INSERT INTO t VALUES(2)"), SQLite::Exception);
}

TEST_F(ReadersTest, OneBeyondTheLimitWaitsForAnother) {
  std::deque<std::unique_ptr<Readers::Lease>> taken(kMaxReaders);
  for (auto& each : taken)
    each.reset(new Readers::Lease(readers_.take()));
  auto waiting = std::async(std::launch::async, [this] {
    Readers::Lease reader = readers_.take();
    return count(reader);
  });
  EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(1)));
  taken.pop_front();
  EXPECT_EQ(1, waiting.get());
}

TEST_F(ReadersTest, AFileThatCannotBeReadTakesNoPlaceAway) {
  Readers nowhere(folder_.path("no/folder"));
  for (int i = 0; i <= kMaxReaders; ++i)
    EXPECT_THROW(nowhere.take(), SQLite::Exception);
}

}  // namespace
}  // namespace morvik_service
