#include "host/store/sqlite_connection.h"

#include <sqlite3.h>

#include <algorithm>

namespace morvik::host {
namespace {

constexpr int kExtendedCodeMask = 0xFF;

}  // namespace

StoreProblem::Kind problemKindOf(int code) {
  switch (code & kExtendedCodeMask) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return StoreProblem::Kind::kBusy;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    // A row where there should be none, or of another type: the file contradicts what was read from it.
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
    // The statements are ours: one that does not fit has met foreign tables.
    case SQLITE_ERROR:
      return StoreProblem::Kind::kUnreadable;
    default:
      return StoreProblem::Kind::kUnavailable;
  }
}

void Statement::Close::operator()(sqlite3_stmt* handle) const {
  sqlite3_finalize(handle);
}

Statement& Statement::bind(int place, int64_t number) {
  sqlite3_bind_int64(handle_.get(), place, number);
  return *this;
}

Statement& Statement::bindText(int place, std::string_view text) {
  sqlite3_bind_text64(handle_.get(), place, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
  return *this;
}

Statement& Statement::bindBlob(int place, std::string_view bytes) {
  sqlite3_bind_blob64(handle_.get(), place, bytes.data(), bytes.size(), SQLITE_STATIC);
  return *this;
}

Statement& Statement::bindNull(int place) {
  sqlite3_bind_null(handle_.get(), place);
  return *this;
}

int Statement::run() {
  int code = SQLITE_ROW;
  while (code == SQLITE_ROW)
    code = sqlite3_step(handle_.get());
  sqlite3_reset(handle_.get());
  return code == SQLITE_DONE ? SQLITE_OK : code;
}

int Statement::step() {
  return sqlite3_step(handle_.get());
}

void Statement::reset() {
  sqlite3_reset(handle_.get());
}

int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(handle_.get(), column);
}

std::string_view Statement::bytes(int column) const {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(handle_.get(), column));
  const auto size = static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column));
  return data == nullptr ? std::string_view() : std::string_view(data, size);
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL;
}

void Connection::Close::operator()(sqlite3* handle) const {
  sqlite3_close_v2(handle);
}

StoreOutcome Connection::open(const std::string& path, const std::string& vfs, Connection& out) {
  return open(path.c_str(), SQLITE_OPEN_READWRITE, vfs.c_str(), out);
}

StoreOutcome Connection::openImage(std::string_view image, Connection& out) {
  if (image.empty())
    return StoreProblem{StoreProblem::Kind::kUnreadable, "it is empty"};
  if (StoreOutcome failed = open(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY, nullptr, out))
    return failed;
  auto* copy = static_cast<unsigned char*>(sqlite3_malloc64(image.size()));
  if (copy == nullptr)
    return StoreProblem{StoreProblem::Kind::kUnavailable, sqlite3_errstr(SQLITE_NOMEM)};
  std::copy(image.begin(), image.end(), copy);
  const auto size = static_cast<sqlite3_int64>(image.size());
  // SQLite owns the copy from now on, even if it refuses it.
  if (sqlite3_deserialize(out.handle(), "main", copy, size, size,
                          SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_READONLY) != SQLITE_OK)
    return out.problem();
  return std::nullopt;
}

StoreOutcome Connection::open(const char* path, int flags, const char* vfs, Connection& out) {
  // Each connection is guarded by its owner; SQLite's own mutex would only cost time.
  flags |= SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE | SQLITE_OPEN_PRIVATECACHE;
  sqlite3* handle = nullptr;
  const int code = sqlite3_open_v2(path, &handle, flags, vfs);
  out.handle_.reset(handle);
  if (code != SQLITE_OK) {
    if (handle == nullptr)
      return StoreProblem{StoreProblem::Kind::kUnavailable, sqlite3_errstr(code)};
    return out.problem();
  }
  // Asked before the file is read: a damaged header may also forbid writing.
  out.may_write_ = sqlite3_db_readonly(handle, "main") == 0;
  sqlite3_busy_timeout(handle, kBusyWaitMilliseconds);
  // By default, the last connection writes the whole log back and removes it on closing.
  sqlite3_db_config(handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  // Nothing in a damaged file is executed, whatever it contains.
  sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  return std::nullopt;
}

StoreOutcome Connection::execute(const char* sql) {
  if (sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    return problem();
  return std::nullopt;
}

StoreOutcome Connection::prepare(const char* sql, Statement& out) {
  sqlite3_stmt* handle = nullptr;
  if (sqlite3_prepare_v3(handle_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &handle, nullptr) != SQLITE_OK)
    return problem();
  out = Statement(handle);
  return std::nullopt;
}

StoreOutcome Connection::number(const char* sql, int64_t& out) {
  Statement statement;
  if (StoreOutcome failed = prepare(sql, statement))
    return failed;
  if (statement.step() != SQLITE_ROW)
    return problem();
  out = statement.integer(0);
  return std::nullopt;
}

StoreProblem Connection::problem() const {
  const int code = sqlite3_extended_errcode(handle_.get());
  // A file that we may write: its header says that we do not know how. If the header says nothing, the system no longer
  // lets us write.
  const bool is_unwritable = code == SQLITE_READONLY && may_write_ && sqlite3_db_readonly(handle_.get(), "main") == 1;
  return {is_unwritable ? StoreProblem::Kind::kUnreadable : problemKindOf(code), sqlite3_errmsg(handle_.get())};
}

}  // namespace morvik::host
