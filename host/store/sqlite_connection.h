// Owned SQLite handles, with errors as values.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace morvik::host {

/// Why a store could not be opened, read or written.
struct StoreProblem {
  enum class Kind : uint8_t {
    kUnavailable,  ///< the file may be good: no space, no permission, an input or output error
    kBusy,         ///< the same, because others are using it
    kUnreadable,   ///< the file is not a store, or no longer one
    kNewer,        ///< written by a later version of this program
  };
  Kind kind = Kind::kUnavailable;
  std::string message;

  static StoreProblem unavailable(std::string message) { return {Kind::kUnavailable, std::move(message)}; }
  /// Nothing is wrong with the file: the same may work later.
  bool leavesTheFileGood() const { return kind == Kind::kUnavailable || kind == Kind::kBusy; }
};

using StoreOutcome = std::optional<StoreProblem>;  ///< nothing: it worked

/// How long a statement waits for another program that holds the file (an inspector, a backup).
inline constexpr int kBusyWaitMilliseconds = 100;

/// What an SQLite result code means for the file.
StoreProblem::Kind problemKindOf(int code);

/// A prepared statement. Bound texts and blobs are not copied: they must live until the statement has run.
class Statement {
 public:
  Statement() = default;
  explicit Statement(sqlite3_stmt* handle) : handle_(handle) {}

  Statement& bind(int place, int64_t number);
  Statement& bindText(int place, std::string_view text);
  Statement& bindBlob(int place, std::string_view bytes);
  Statement& bindNull(int place);
  /// Runs to the end and resets for the next use; returns an SQLite result code, SQLITE_OK on success.
  int run();
  /// One step; returns an SQLite result code.
  int step();
  void reset();
  int64_t integer(int column) const;
  /// Valid until the next step.
  std::string_view bytes(int column) const;
  bool isNull(int column) const;

 private:
  struct Close {
    void operator()(sqlite3_stmt* handle) const;
  };
  std::unique_ptr<sqlite3_stmt, Close> handle_;
};

/// One connection. Belongs to one thread at a time.
class Connection {
 public:
  /// `vfs`: SQLite's name of the file system to use.
  static StoreOutcome open(const std::string& path, const std::string& vfs, Connection& out);
  /// On a copy of these bytes (a whole database without a log), for reading. Accesses no file.
  static StoreOutcome openImage(std::string_view image, Connection& out);

  sqlite3* handle() const { return handle_.get(); }
  StoreOutcome execute(const char* sql);
  StoreOutcome prepare(const char* sql, Statement& out);
  /// The first column of the first row as a number.
  StoreOutcome number(const char* sql, int64_t& out);
  /// The connection's last error, by what can be done about it.
  StoreProblem problem() const;
  void close() { handle_.reset(); }

 private:
  static StoreOutcome open(const char* path, int flags, const char* vfs, Connection& out);

  struct Close {
    void operator()(sqlite3* handle) const;
  };
  std::unique_ptr<sqlite3, Close> handle_;
  bool may_write_ = false;  ///< as far as the system is concerned
};

}  // namespace morvik::host
