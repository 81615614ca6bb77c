// The platform's key-value store: what survives a restart.
#pragma once

#include <optional>
#include <string_view>

#include "kit/value.h"

namespace morvik::kit {

/// Each call is thread-safe. Readers see memory: a value is visible to get() in this process as soon as it is set.
class KeyValueStore {
 public:
  virtual ~KeyValueStore() = default;
  /// The value stored under `key`; absent if there is none. Does not block on the disk.
  virtual Value get(std::string_view key) const = 0;
  /// Replaces the whole value; an absent value removes the key. Does not block on the disk. Arrays are stored by
  /// element: a list made from the stored one by appending or removing costs only what changed.
  virtual void set(std::string_view key, Value value) = 0;
  /// Appends an element to the list under `key`; begins a list if there is none. Constant time. Does not block on the
  /// disk, nor on another thread's use of the list.
  virtual void append(std::string_view key, Value element) = 0;
  /// Replaces `before`, a list returned by get(), with `after`: elements appended meanwhile stay, behind `after`. A
  /// list that is no longer a continuation of `before` is replaced completely. Does not block on the disk.
  virtual void replace(std::string_view key, const Value& before, Value after) = 0;
  /// Makes all writes so far survive the death of the process. Does not wait for the disk. The store itself logs errors
  /// (disk full, …); the values stay in memory and are retried with the next writes. False if one of the writes since
  /// the last call would not survive.
  virtual bool synchronize() = 0;

  // For a thread on which the process is about to die, and which may hold any lock, including this store's. These take
  // no lock and write no log line.
  /// As get(); nothing if the store is in use at this moment. An outer value is an answer, absent or not.
  virtual std::optional<Value> tryGet(std::string_view key) const = 0;
  /// As set() and synchronize(), both or neither: on true the value survives the death of the process. False, with
  /// nothing changed, if the store is in use at this moment or cannot take the value.
  virtual bool trySetAndSynchronize(std::string_view key, Value value) = 0;
};

}  // namespace morvik::kit
