#include "apps/service/store/database.h"

namespace morvik_service {
namespace {

[[noreturn]] void fail(sqlite3* handle, int result_code) {
  throw DatabaseError(result_code, handle != nullptr ? sqlite3_errmsg(handle) : sqlite3_errstr(result_code));
}

}  // namespace

Statement::Statement(Database& database, std::string_view sql) : database_(database) {
  sqlite3_stmt* made = nullptr;
  const int result = sqlite3_prepare_v2(database.handle(), sql.data(), static_cast<int>(sql.size()), &made, nullptr);
  statement_.reset(made);
  mustBe(result, SQLITE_OK);
}

void Statement::mustBe(int result_code, int expected) const {
  if (result_code != expected)
    fail(database_.handle(), result_code);
}

Statement& Statement::bind(std::int64_t value) {
  mustBe(sqlite3_bind_int64(statement_.get(), next_parameter_++, value), SQLITE_OK);
  return *this;
}

Statement& Statement::bind(std::string_view text) {
  // A null pointer would bind NULL; an empty text is a text.
  mustBe(sqlite3_bind_text64(statement_.get(), next_parameter_++, text.empty() ? "" : text.data(), text.size(),
                             SQLITE_TRANSIENT, SQLITE_UTF8),
         SQLITE_OK);
  return *this;
}

Statement& Statement::bind(const std::optional<std::string>& text) {
  if (text)
    return bind(std::string_view(*text));
  mustBe(sqlite3_bind_null(statement_.get(), next_parameter_++), SQLITE_OK);
  return *this;
}

Statement& Statement::bindBlob(std::string_view bytes) {
  mustBe(sqlite3_bind_blob64(statement_.get(), next_parameter_++, bytes.empty() ? "" : bytes.data(), bytes.size(),
                             SQLITE_TRANSIENT),
         SQLITE_OK);
  return *this;
}

bool Statement::step() {
  const int result = sqlite3_step(statement_.get());
  if (result == SQLITE_ROW)
    return true;
  mustBe(result, SQLITE_DONE);
  return false;
}

void Statement::run() {
  while (step()) {
  }
  reset();
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
  next_parameter_ = 1;
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string_view Statement::bytes(int column) const {
  const void* data = sqlite3_column_blob(statement_.get(), column);
  if (data == nullptr)
    return {};
  return {static_cast<const char*>(data), static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

Database::Database(const std::string& path) {
  sqlite3* opened = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  handle_.reset(opened);
  if (result != SQLITE_OK)
    fail(opened, result);
}

void Database::execute(const std::string& sql) {
  const int result = sqlite3_exec(handle(), sql.c_str(), nullptr, nullptr, nullptr);
  if (result != SQLITE_OK)
    fail(handle(), result);
}

std::int64_t Database::lastInsertedRow() const {
  return sqlite3_last_insert_rowid(handle());
}

std::int64_t Database::changedRows() const {
  return sqlite3_changes64(handle());
}

Transaction::Transaction(Database& database) : database_(database) {
  database_.execute("BEGIN");
}

Transaction::~Transaction() {
  // A failure that already rolled back leaves nothing to undo; the answer is the same.
  if (open_)
    sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  database_.execute("COMMIT");
  open_ = false;
}

}  // namespace morvik_service
