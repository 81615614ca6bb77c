// A machine's store in front of another one; forwards everything.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// A base class: derived classes override only what they change.
class PassingStore : public MachineStore {
 public:
  kit::Value get(std::string_view key) const override { return store_.get(key); }
  void set(std::string_view key, kit::Value value) override { store_.set(key, std::move(value)); }
  void append(std::string_view key, kit::Value element) override { store_.append(key, std::move(element)); }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    store_.replace(key, before, std::move(after));
  }
  void setTogether(std::span<StoreWrite> writes) override { store_.setTogether(writes); }
  bool synchronize() override { return store_.synchronize(); }
  std::optional<kit::Value> tryGet(std::string_view key) const override { return store_.tryGet(key); }
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override {
    return store_.trySetAndSynchronize(key, std::move(value));
  }

  StoreOpening opening() const override { return store_.opening(); }
  const std::string& openingLine() const override { return store_.openingLine(); }
  void setWhenTakenOver(kit::Block hook) override { store_.setWhenTakenOver(std::move(hook)); }
  bool commitTurn() override { return store_.commitTurn(); }
  bool synchronizeUntold() override { return store_.synchronizeUntold(); }
  void tellWaiting() override { store_.tellWaiting(); }
  bool isKept() const override { return store_.isKept(); }
  std::vector<std::pair<std::string, kit::Value>> all() const override { return store_.all(); }
  void flushNow() override { store_.flushNow(); }
  void flushSoon() override { store_.flushSoon(); }
  void setWhenFlushed(kit::Block hook) override { store_.setWhenFlushed(std::move(hook)); }
  void beginToEnd() override { store_.beginToEnd(); }
  void shutdown() override { store_.shutdown(); }

 protected:
  /// `store` outlives it.
  explicit PassingStore(MachineStore& store) : store_(store) {}

  MachineStore& store_;
};

}  // namespace morvik::runtime
