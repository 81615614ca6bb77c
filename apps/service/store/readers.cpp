#include "apps/service/store/readers.h"

#include <utility>

namespace morvik_service {

Readers::Lease::Lease(Readers& readers, std::unique_ptr<SQLite::Database> database)
    : readers_(readers), database_(std::move(database)) {
  try {
    if (database_ == nullptr)
      database_ = readers_.open();
    view_ = std::make_unique<SQLite::Transaction>(*database_);
  } catch (...) {
    readers_.giveBack(nullptr);
    throw;
  }
}

Readers::Lease::~Lease() {
  view_.reset();
  readers_.giveBack(std::move(database_));
}

Readers::Lease Readers::take() {
  std::unique_lock lock(mutex_);
  freed_.wait(lock, [this] { return taken_ < kMaxReaders; });
  ++taken_;
  std::unique_ptr<SQLite::Database> database;
  if (!idle_.empty()) {
    database = std::move(idle_.back());
    idle_.pop_back();
  }
  lock.unlock();
  return {*this, std::move(database)};
}

std::unique_ptr<SQLite::Database> Readers::open() const {
  auto database = std::make_unique<SQLite::Database>(file_, SQLite::OPEN_READWRITE);
  database->exec("PRAGMA query_only=1");
  return database;
}

void Readers::giveBack(std::unique_ptr<SQLite::Database> database) {
  {
    const std::lock_guard lock(mutex_);
    --taken_;
    if (database != nullptr)
      idle_.push_back(std::move(database));
  }
  freed_.notify_one();
}

}  // namespace morvik_service
