// The platform's key-value store: what survives a restart.
#pragma once

#include <optional>
#include <string_view>

#include "kit/value.h"

namespace morvik::kit {

/// Safe per call from any thread. Readers see memory: a value set is returned by the next get() in this process at
/// once.
class KeyValueStore {
 public:
  virtual ~KeyValueStore() = default;
  /// The value stored under `key`; absent when there is none. Does not block on the disk.
  virtual Value get(std::string_view key) const = 0;
  /// Replaces the value whole; an absent value removes the key. Does not block on the disk. Arrays are kept by element:
  /// a list that came of the stored one by appending or removing costs what was changed.
  virtual void set(std::string_view key, Value value) = 0;
  /// Puts one more element behind the list under `key`; begins a list where there is none. Constant time. Does not
  /// block on the disk, nor on what another thread does with the list.
  virtual void append(std::string_view key, Value element) = 0;
  /// Puts `after` in the place of `before`, a list that get() gave: what was appended meanwhile stays, behind `after`.
  /// Of a list that is no continuation of `before` any more nothing stays. Does not block on the disk.
  virtual void replace(std::string_view key, const Value& before, Value after) = 0;
  /// Completes the persistence of all writes made so far: when it returns they survive the death of the process. It
  /// does not wait for the disk. Errors (disk full, …) are reported by the store itself, in the log; the values stay in
  /// memory and are tried again with the next writes. False when one of
  /// those since the last call would not survive.
  virtual bool synchronize() = 0;

  // For a thread on which the process is about to die, and which may hold any lock, one of this store's included. These
  // wait for no lock and write no log line.
  /// As get(); nothing at all when the store is in use at this moment. An outer value is an answer, absent or not.
  virtual std::optional<Value> tryGet(std::string_view key) const = 0;
  /// As set() and synchronize(), both or neither: when it returns true the value survives the death of the process.
  /// False, and nothing is changed, when the store is in use at this moment or cannot keep the value.
  virtual bool trySetAndSynchronize(std::string_view key, Value value) = 0;
};

}  // namespace morvik::kit
