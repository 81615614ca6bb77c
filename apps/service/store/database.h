// A thin, owning layer over SQLite: statements are bound and read in order, every failure is one exception.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace morvik_service {

/// The disk or the database refused; the text is SQLite's.
class DatabaseError : public std::runtime_error {
 public:
  DatabaseError(int result_code, const std::string& text) : std::runtime_error(text), result_code_(result_code) {}
  int resultCode() const { return result_code_; }

 private:
  int result_code_;
};

class Database;

/// One prepared statement. Bind all parameters in order with `bind`, then `step`; `reset` makes it ready again. Text
/// and blobs are copied when bound.
class Statement {
 public:
  Statement(Database& database, std::string_view sql);

  Statement& bind(std::int64_t value);
  Statement& bind(std::string_view text);
  Statement& bind(const std::string& text) { return bind(std::string_view(text)); }
  Statement& bind(const std::optional<std::string>& text);
  Statement& bindBlob(std::string_view bytes);

  /// True when a row can be read, false at the end.
  bool step();
  /// Runs to the end and resets.
  void run();
  void reset();

  std::int64_t integer(int column) const;
  /// Text or blob as stored; "" for NULL. The view dies with the next step or reset.
  std::string_view bytes(int column) const;
  bool isNull(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  void mustBe(int result_code, int expected) const;

  Database& database_;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int next_parameter_ = 1;
};

class Database {
 public:
  /// Opens or makes the file. Throws DatabaseError.
  explicit Database(const std::string& path);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  Database(Database&&) = default;

  /// Runs statements that give no rows.
  void execute(const std::string& sql);

  std::int64_t lastInsertedRow() const;
  /// Rows that the last statement changed.
  std::int64_t changedRows() const;
  sqlite3* handle() const { return handle_.get(); }

 private:
  struct Close {
    void operator()(sqlite3* handle) const { sqlite3_close(handle); }
  };

  std::unique_ptr<sqlite3, Close> handle_;
};

/// All or nothing: what ran since construction is undone unless `commit` was called.
class Transaction {
 public:
  explicit Transaction(Database& database);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();
  void commit();

 private:
  Database& database_;
  bool open_ = true;
};

}  // namespace morvik_service
