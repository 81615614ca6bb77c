// How values are stored: a compact binary form with a version, written and read only here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/value.h"

namespace morvik::runtime {

/// First byte of every stored value. A reader refuses unknown versions.
inline constexpr uint8_t kValueFormatVersion = 1;
/// Nesting of containers. Well above what any reader of documents accepts, well below what a thread's stack holds.
inline constexpr size_t kMaxStoredDepth = 512;
/// Of one stored value. SQLite's own limit is a thousand million.
inline constexpr size_t kMaxStoredBytes = 64u << 20;

// The form: the version byte, then one item. An item is a tag byte and what belongs to it:
//   0 absent, 1 null, 2 false, 3 true            nothing
//   4 integer, 8 date (microseconds since 1970)  zigzag varint
//   5 unsigned (beyond the signed range)         varint
//   6 double                                     8 bytes, least significant first
//   7 string                                     varint length in bytes, the bytes
//   9 array                                      varint count, that many items
//  10 dictionary                                 varint count, that many of: varint length, key bytes, item
// A varint has seven bits a byte, least significant first, the eighth bit set on all bytes but the last.

/// Appends the stored form of `value` to `out`. Any thread. False if it is nested deeper than kMaxStoredDepth or longer
/// than kMaxStoredBytes; `out` is then unchanged.
[[nodiscard]] bool encodeValue(const kit::Value& value, std::string& out);

/// Reads stored values. Remembers short strings, so that a thousand records share one copy of each of their keys; keep
/// one decoder for a whole load. One thread at a time.
class ValueDecoder {
 public:
  /// The value, or nothing if `bytes` are not exactly one well-formed value. Any bytes may be given. Memory is bounded
  /// by a small multiple of their number.
  [[nodiscard]] std::optional<kit::Value> decode(std::string_view bytes);

 private:
  bool item(kit::Value& out, size_t depth);
  bool array(kit::Value& out, size_t depth);
  bool dictionary(kit::Value& out, size_t depth);
  bool text(kit::Value& out);
  bool varint(uint64_t& out);
  bool fixed64(uint64_t& out);
  kit::Value shared(std::string_view text);

  std::string_view rest_;
  std::vector<kit::Entry> entries_;
  std::vector<kit::Value> remembered_;
};

}  // namespace morvik::runtime
