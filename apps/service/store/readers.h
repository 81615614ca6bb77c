// Read-only connections to the store: they neither wait for a writer nor block one.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace morvik_service {

/// At most this many read at a time; a further one waits. A listing may hold kMaxListingBytes.
inline constexpr int kMaxReaders = 8;

/// Any thread.
class Readers {
 public:
  /// One reader's view: what was committed at its first read, whatever is written meanwhile.
  class Lease {
   public:
    Lease(Readers& readers, std::unique_ptr<SQLite::Database> database);
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();

    SQLite::Database& database() { return *database_; }

   private:
    Readers& readers_;
    std::unique_ptr<SQLite::Database> database_;
    std::unique_ptr<SQLite::Transaction> view_;
  };

  /// `file` is a database with a write-ahead log. Opened on demand.
  explicit Readers(std::string file) : file_(std::move(file)) {}

  /// Throws SQLite::Exception.
  Lease take();

 private:
  std::unique_ptr<SQLite::Database> open() const;
  void giveBack(std::unique_ptr<SQLite::Database> database);

  const std::string file_;
  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<std::unique_ptr<SQLite::Database>> idle_;  ///< guarded by mutex_, as `taken_`
  int taken_ = 0;
};

}  // namespace morvik_service
