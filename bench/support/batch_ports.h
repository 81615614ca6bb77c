// The same batch twice: as records in a store, from which the core builds it, and as plain structures, from which it is
// written by hand.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kit/ports.h"

namespace morvik::bench {

struct PlainEvent {
  std::string group;
  std::string name;
  std::string param;
  std::string created_at;
  std::string id;
};

/// A batch of `count` events, ready to be written.
struct PlainBatch {
  explicit PlainBatch(size_t count);
  /// The batch's JSON text, written by hand.
  void appendJson(std::string& out) const;

  std::vector<std::pair<std::string, std::string>> common;
  std::vector<PlainEvent> events;
};

/// Real cipher, compressor and random numbers.
class Sealer {
 public:
  explicit Sealer(const kit::StopRequest* stop = nullptr);
  ~Sealer();
  /// Deflate, encryption and base64url with the calls that the core uses, and nothing else.
  std::string sealByHand(const std::string& text) const;
  /// The envelope as the kit makes it.
  kit::Value envelope(const kit::Value& payload, const std::string& key) const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

/// Ports on a memory store with `count` events, and a services object that goes as far as `step`. With an order its
/// batches are as large as the kit's; without one they carry everything.
class BatchPorts {
 public:
  enum class Step { kJsonText, kEnvelope };
  enum class Order { kByTime, kShuffled };
  BatchPorts(size_t count, Step step);
  BatchPorts(size_t count, Step step, Order order);
  ~BatchPorts();
  const kit::Ports& ports() const;
  /// Size of the latest batch's result.
  size_t outputBytes() const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace morvik::bench
