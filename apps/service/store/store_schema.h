// The tables of the store, and their upgrade from older versions.
#pragma once

#include <SQLiteCpp/Database.h>

namespace morvik_service {

/// Makes or upgrades the tables, all or nothing. Throws SetupError when a newer version wrote them, SQLite::Exception
/// when the database refuses (SQLITE_BUSY: another process holds it).
void openSchema(SQLite::Database& database);

}  // namespace morvik_service
