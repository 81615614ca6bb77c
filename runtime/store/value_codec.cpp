#include "runtime/store/value_codec.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>

namespace morvik::runtime {
namespace {

using kit::Entry;
using kit::Value;

enum Tag : uint8_t {
  kTagAbsent = 0,
  kTagNull = 1,
  kTagFalse = 2,
  kTagTrue = 3,
  kTagInteger = 4,
  kTagUnsigned = 5,
  kTagDouble = 6,
  kTagString = 7,
  kTagDate = 8,
  kTagArray = 9,
  kTagDictionary = 10,
};

/// Strings up to this length are looked up among the remembered ones.
constexpr size_t kRememberedStringBytes = 32;
/// Slots for remembered strings; a newer string replaces an older one.
constexpr size_t kRememberedStrings = 512;
/// Up to this many keys are compared with each other; more are sorted to find a repeated one.
constexpr size_t kFewKeys = 24;

uint64_t zigzag(int64_t number) {
  return (static_cast<uint64_t>(number) << 1) ^ static_cast<uint64_t>(number >> 63);
}

int64_t unzigzag(uint64_t bits) {
  return static_cast<int64_t>((bits >> 1) ^ (~(bits & 1) + 1));
}

class Encoder {
 public:
  explicit Encoder(std::string& out) : out_(out), start_(out.size()) {}

  bool item(const Value& value, size_t depth) {
    switch (value.kind()) {
      case kit::Kind::kAbsent:
        tag(kTagAbsent);
        break;
      case kit::Kind::kNull:
        tag(kTagNull);
        break;
      case kit::Kind::kBoolean:
        tag(value.boolean() ? kTagTrue : kTagFalse);
        break;
      case kit::Kind::kInteger:
        tag(kTagInteger);
        varint(zigzag(value.integer()));
        break;
      case kit::Kind::kUnsigned:
        tag(kTagUnsigned);
        varint(value.unsignedInteger());
        break;
      case kit::Kind::kDouble:
        tag(kTagDouble);
        fixed64(std::bit_cast<uint64_t>(value.number()));
        break;
      case kit::Kind::kString:
        tag(kTagString);
        return text(value.string());
      case kit::Kind::kDate:
        tag(kTagDate);
        varint(zigzag(value.date().microseconds));
        break;
      case kit::Kind::kArray:
        return array(value.array(), depth);
      case kit::Kind::kDictionary:
        return dictionary(value.dictionary(), depth);
    }
    return fits();
  }

 private:
  bool array(const kit::Array& array, size_t depth) {
    if (depth == kMaxStoredDepth)
      return false;
    tag(kTagArray);
    varint(array.size());
    for (const Value& element : array) {
      if (!item(element, depth + 1))
        return false;
    }
    return fits();
  }

  bool dictionary(const kit::Dictionary& dictionary, size_t depth) {
    if (depth == kMaxStoredDepth)
      return false;
    tag(kTagDictionary);
    varint(dictionary.size());
    for (const Entry& entry : dictionary) {
      if (!text(entry.key.string()) || !item(entry.value, depth + 1))
        return false;
    }
    return fits();
  }

  bool text(std::string_view text) {
    if (text.size() > kMaxStoredBytes)
      return false;
    varint(text.size());
    out_.append(text);
    return fits();
  }

  void tag(Tag tag) { out_.push_back(static_cast<char>(tag)); }

  void varint(uint64_t bits) {
    while (bits >= 0x80) {
      out_.push_back(static_cast<char>(static_cast<uint8_t>(bits | 0x80)));
      bits >>= 7;
    }
    out_.push_back(static_cast<char>(bits));
  }

  void fixed64(uint64_t bits) {
    for (int shift = 0; shift < 64; shift += 8)
      out_.push_back(static_cast<char>(static_cast<uint8_t>(bits >> shift)));
  }

  bool fits() const { return out_.size() - start_ <= kMaxStoredBytes; }

  std::string& out_;
  const size_t start_;
};

/// Length and the first and last eight bytes distinguish the keys of records well enough, at a fraction of the cost of
/// hashing everything.
size_t placeOf(std::string_view text) {
  uint64_t head = 0;
  uint64_t tail = 0;
  const size_t count = std::min(text.size(), sizeof(head));
  if (count != 0) {
    std::memcpy(&head, text.data(), count);
    std::memcpy(&tail, text.data() + text.size() - count, count);
  }
  const uint64_t mixed = ((head * 3) ^ tail ^ text.size()) * 0x9E3779B97F4A7C15u;
  return static_cast<size_t>(mixed >> 32) % kRememberedStrings;
}

bool keysDiffer(std::span<const Entry> entries) {
  if (entries.size() <= kFewKeys) {
    for (size_t i = 1; i < entries.size(); ++i) {
      for (size_t j = 0; j < i; ++j) {
        if (entries[i].key.string() == entries[j].key.string())
          return false;
      }
    }
    return true;
  }
  std::vector<std::string_view> keys;
  keys.reserve(entries.size());
  for (const Entry& entry : entries)
    keys.push_back(entry.key.string());
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) == keys.end();
}

}  // namespace

bool encodeValue(const Value& value, std::string& out) {
  const size_t before = out.size();
  out.push_back(static_cast<char>(kValueFormatVersion));
  if (Encoder(out).item(value, 0))
    return true;
  out.resize(before);
  return false;
}

std::optional<Value> ValueDecoder::decode(std::string_view bytes) {
  if (bytes.empty() || static_cast<uint8_t>(bytes.front()) != kValueFormatVersion)
    return std::nullopt;
  rest_ = bytes.substr(1);
  Value value;
  const bool whole = item(value, 0) && rest_.empty();
  entries_.clear();
  if (!whole)
    return std::nullopt;
  return value;
}

bool ValueDecoder::item(Value& out, size_t depth) {
  if (rest_.empty())
    return false;
  const auto tag = static_cast<uint8_t>(rest_.front());
  rest_.remove_prefix(1);
  uint64_t bits = 0;
  switch (tag) {
    case kTagAbsent:
      out = Value();
      return true;
    case kTagNull:
      out = Value::null();
      return true;
    case kTagFalse:
    case kTagTrue:
      out = Value(tag == kTagTrue);
      return true;
    case kTagInteger:
      if (!varint(bits))
        return false;
      out = Value(unzigzag(bits));
      return true;
    case kTagUnsigned:
      if (!varint(bits))
        return false;
      out = Value(bits);
      return true;
    case kTagDouble:
      if (!fixed64(bits))
        return false;
      out = Value(std::bit_cast<double>(bits));
      return true;
    case kTagDate:
      if (!varint(bits))
        return false;
      out = Value(kit::Date{unzigzag(bits)});
      return true;
    case kTagString:
      return text(out);
    case kTagArray:
      return array(out, depth);
    case kTagDictionary:
      return dictionary(out, depth);
    default:
      return false;
  }
}

bool ValueDecoder::array(Value& out, size_t depth) {
  uint64_t count = 0;
  // Every element takes at least one byte, so a count beyond the remaining bytes is wrong.
  if (depth == kMaxStoredDepth || !varint(count) || count > rest_.size())
    return false;
  kit::MutableArray elements;
  for (uint64_t i = 0; i < count; ++i) {
    Value element;
    if (!item(element, depth + 1))
      return false;
    elements.append(std::move(element));
  }
  out = Value(std::move(elements));
  if (count == 0)
    out = Value(kit::Array());
  return true;
}

bool ValueDecoder::dictionary(Value& out, size_t depth) {
  uint64_t count = 0;
  // Every entry takes at least two bytes.
  if (depth == kMaxStoredDepth || !varint(count) || count > rest_.size() / 2)
    return false;
  // Entries of nested dictionaries being read share one stack, so that none needs its own allocation.
  const size_t base = entries_.size();
  for (uint64_t i = 0; i < count; ++i) {
    Entry entry;
    if (!text(entry.key) || !item(entry.value, depth + 1))
      return false;
    entries_.push_back(std::move(entry));
  }
  const std::span<Entry> entries(entries_.data() + base, count);
  if (!keysDiffer(entries))
    return false;
  out = Value(kit::Dictionary::fromEntries(entries));
  entries_.resize(base);
  return true;
}

bool ValueDecoder::text(Value& out) {
  uint64_t length = 0;
  if (!varint(length) || length > rest_.size())
    return false;
  out = shared(rest_.substr(0, length));
  rest_.remove_prefix(length);
  return true;
}

bool ValueDecoder::varint(uint64_t& out) {
  out = 0;
  for (int shift = 0; shift < 64 && !rest_.empty(); shift += 7) {
    const auto byte = static_cast<uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    if (shift == 63 && byte > 1)
      return false;
    out |= static_cast<uint64_t>(byte & 0x7F) << shift;
    if (byte < 0x80)
      return true;
  }
  return false;
}

bool ValueDecoder::fixed64(uint64_t& out) {
  if (rest_.size() < 8)
    return false;
  out = 0;
  for (size_t i = 0; i < 8; ++i)
    out |= static_cast<uint64_t>(static_cast<uint8_t>(rest_[i])) << (8 * i);
  rest_.remove_prefix(8);
  return true;
}

Value ValueDecoder::shared(std::string_view text) {
  if (text.size() > kRememberedStringBytes)
    return Value(text);
  if (remembered_.empty())
    remembered_.resize(kRememberedStrings);
  Value& place = remembered_[placeOf(text)];
  if (!place.isString() || place.string() != text)
    place = Value(text);
  return place;
}

}  // namespace morvik::runtime
