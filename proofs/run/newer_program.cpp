#include "proofs/run/newer_program.h"

#include <sqlite3.h>

#include <memory>
#include <string>

#include "host/store/store_database.h"
#include "host/store/store_files.h"

namespace morvik::proofs {
namespace {

void copyStore(simulation::SimulatedDisk& from, simulation::SimulatedDisk& to) {
  for (const auto& [path, bytes] : storeFilesOn(from))
    to.put(path, bytes);
}

using Database = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;

Database opened(const host::StorePlace& place) {
  sqlite3* database = nullptr;
  sqlite3_open_v2(place.path().c_str(), &database, SQLITE_OPEN_READWRITE, place.vfs.c_str());
  return {database, sqlite3_close};
}

bool isStore(sqlite3* database) {
  const auto note = [](void* found, int, char** columns, char**) {
    *static_cast<bool*>(found) = columns[0] == std::to_string(host::kStoreApplicationId);
    return 0;
  };
  bool is_store = false;
  return sqlite3_exec(database, "PRAGMA application_id", note, &is_store, nullptr) == SQLITE_OK && is_store;
}

bool setVersion(const host::StorePlace& place, int64_t version) {
  const Database database = opened(place);
  const std::string statements =
      "PRAGMA user_version = " + std::to_string(version) + "; PRAGMA wal_checkpoint(TRUNCATE)";
  return isStore(database.get()) &&
         sqlite3_exec(database.get(), statements.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

std::map<std::string, std::string> storeFilesOn(simulation::SimulatedDisk& disk) {
  const std::string path = disk.place().path();
  return {{path, disk.bytesOf(path)}, {path + "-wal", disk.bytesOf(path + "-wal")}};
}

bool useWithNewerProgram(simulation::SimulatedDisk& disk, int64_t version) {
  simulation::SimulatedDisk workbench;
  copyStore(disk, workbench);
  if (!setVersion(workbench.place(), version))
    return false;
  copyStore(workbench, disk);
  return true;
}

}  // namespace morvik::proofs
