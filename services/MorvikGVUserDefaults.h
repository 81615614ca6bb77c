// The persistent user store: typed properties over the platform's key-value store, and its two plain entries.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "kit/key_value_store.h"
#include "kit/list_lock.h"
#include "kit/url.h"

namespace morvik::services {

enum class PropertyType { kInt64, kInt32, kBool, kString, kDate, kArray };

/// One row of the property table.
struct StoreProperty {
  const char* name;  ///< also the key under which it is stored
  PropertyType type;
  int unset;  ///< value of an integer property that was never set
};

/// All stored properties, in the order of the table.
std::span<const StoreProperty> storeProperties();

/// The properties' names, which are also their keys in the store.
namespace property {
#define MORVIK_STORE_PROPERTY(name, setter, type, unset) inline constexpr const char* name = #name;
#include "services/store_properties.inc"
#undef MORVIK_STORE_PROPERTY
}  // namespace property

/// Types of the accessors. Strings and dates may be absent; an array is a Value, absent or an array.
namespace accessor {
using Int64 = int64_t;
using Int32 = int32_t;
using Bool = bool;
using String = std::optional<std::string>;
using Date = std::optional<kit::Date>;
using Array = kit::Value;
}  // namespace accessor

/// Two references, cheap to make and to copy. Any thread; no call waits for disk or network. A value of another type
/// than the property's (from a damaged store) reads as unset.
class MorvikGVUserDefaults {
 public:
  MorvikGVUserDefaults(kit::KeyValueStore& store, kit::ListLock& lock) : store_(&store), lock_(&lock) {}

#define MORVIK_STORE_PROPERTY(name, setter, type, unset) \
  accessor::type name() const;                           \
  void setter(const accessor::type& value) const;
#include "services/store_properties.inc"
#undef MORVIK_STORE_PROPERTY

  /// Completes the persistence of the writes so far; false when some of them would not survive. Never to be called
  /// inside inOneStep().
  bool synchronize() const {
    return store_->synchronize();
  }

  /// Runs `step` under the list lock: for reading a stored list, changing it and writing it back. The step must not
  /// call out: no log line, no delegate, no synchronize, no request, no second step.
  template <class Step>
  auto inOneStep(Step&& step) const {
    const std::scoped_lock hold(lock_->mutex);
    return step();
  }

  /// Runs `step` under the door: for appending one record and asking the gate in the same step. Otherwise as
  /// inOneStep(). Must be short: no pass over a list.
  template <class Step>
  auto atTheDoor(Step&& step) const {
    const std::scoped_lock hold(lock_->door);
    return step();
  }
  /// Appends `record` to the list stored under the property's name, in constant time, even while others rewrite it.
  void append(const char* property_name, const kit::Value& record) const {
    store_->append(property_name, record);
  }
  /// Within inOneStep(): replaces the stored list `before` by `after`. What was appended meanwhile follows it.
  void replace(const char* property_name, const kit::Value& before, const kit::Value& after) const {
    store_->replace(property_name, before, after);
  }

  // For a thread on which the process is about to die, and which may hold any lock: neither call waits for one.
  /// The text stored under the property's name; nothing if there is none, or if the store is in use right now.
  std::optional<std::string> tryGetString(const char* property_name) const;
  /// Appends `record` to the list stored under the property's name (a new one where none is) and completes its
  /// persistence, in one step under the list lock. False, and nothing changes, if the lock or the store is in use right
  /// now or the store cannot keep the record.
  bool tryAppendAndSynchronize(const char* property_name, const kit::Value& record) const;

  // The plain entries of the platform store.
  /// 0 if there is no such entry.
  int64_t integerForKey(std::string_view key) const;
  void setInteger(int64_t value, std::string_view key) const;
  /// Absent when there is no such entry, or when it is no array.
  kit::Value arrayForKey(std::string_view key) const;
  void setArray(const kit::Value& value, std::string_view key) const;
  /// Nothing when there is no such entry.
  std::optional<kit::Url> URLForKey(std::string_view key) const;
  /// Without a URL the entry is removed.
  void setURL(const std::optional<kit::Url>& url, std::string_view key) const;

 private:
  kit::KeyValueStore* store_;
  kit::ListLock* lock_;
};

}  // namespace morvik::services
