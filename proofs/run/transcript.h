// What happened in a run, as one number: two runs with the same number were the same to the byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace morvik::proofs {

/// FNV-1a, 64 bits.
class Transcript {
 public:
  void add(std::string_view text) {
    for (const char each : text)
      mix(static_cast<uint8_t>(each));
    mix(kEnd);
  }
  void add(uint64_t number) {
    for (size_t byte = 0; byte < sizeof number; ++byte)
      mix(static_cast<uint8_t>(number >> (byte * 8)));
  }
  /// Of what was added so far, in that order.
  uint64_t hash() const { return hash_; }

 private:
  static constexpr uint8_t kEnd = 0xff;  // in no text that is UTF-8
  void mix(uint8_t byte) {
    hash_ ^= byte;
    hash_ *= 0x100000001b3U;
  }

  uint64_t hash_ = 0xcbf29ce484222325U;
};

}  // namespace morvik::proofs
