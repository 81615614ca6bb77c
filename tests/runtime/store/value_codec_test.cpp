#include "runtime/store/value_codec.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;

std::string encoded(const Value& value) {
  std::string bytes;
  EXPECT_TRUE(encodeValue(value, bytes));
  return bytes;
}

std::optional<Value> decoded(std::string_view bytes) {
  return ValueDecoder().decode(bytes);
}

std::string bytes(std::initializer_list<int> numbers) {
  std::string out;
  for (const int number : numbers)
    out.push_back(static_cast<char>(number));
  return out;
}

Value nested(size_t depth) {
  Value value = 1;
  for (size_t i = 0; i < depth; ++i) {
    if (i % 2 == 0)
      value = Array{value};
    else
      value = Dictionary{{"k", value}};
  }
  return value;
}

TEST(ValueCodec, EveryKindComesBackAsItWas) {
  const std::vector<Value> values = {
      Value(),
      Value::null(),
      true,
      false,
      0,
      -1,
      63,
      64,
      -65,
      std::numeric_limits<int64_t>::min(),
      std::numeric_limits<int64_t>::max(),
      std::numeric_limits<uint64_t>::max(),
      0.1,
      std::numeric_limits<double>::infinity(),
      "",
      "text",
      std::string(1000, 'x'),
      std::string("\0\xFF", 2),
      kit::Date{std::numeric_limits<int64_t>::min()},
      kit::Date{1'700'000'000'123'456},
      Array{},
      Dictionary{},
      Array{Value(), Value::null(), Array{}, Dictionary{{"a", Array{1, 2}}}},
      Dictionary{{"", 1}, {"b", Dictionary{{"c", 2.5}}}},
  };
  for (const Value& value : values) {
    const std::optional<Value> back = decoded(encoded(value));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(*back, value);
    EXPECT_EQ(back->kind(), value.kind());
  }
}

TEST(ValueCodec, DoublesKeepEveryBit) {
  for (const uint64_t bits : {uint64_t{0x8000000000000000}, uint64_t{0x7FF8000000000123}, uint64_t{1}}) {
    const std::optional<Value> back = decoded(encoded(std::bit_cast<double>(bits)));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(std::bit_cast<uint64_t>(back->number()), bits);
  }
}

TEST(ValueCodec, DictionariesKeepTheirOrder) {
  const std::optional<Value> back = decoded(encoded(Dictionary{{"z", 1}, {"a", 2}, {"m", 3}}));
  ASSERT_TRUE(back.has_value());
  std::string order;
  for (const kit::Entry& entry : back->dictionary())
    order += entry.key.string();
  EXPECT_EQ(order, "zam");
}

// The form is stored on people's devices: it changes only with a new version number.
TEST(ValueCodec, TheFormIsThis) {
  EXPECT_EQ(
      encoded(Dictionary{{"n", -2}, {"l", Array{true, "ab", 1.0, kit::Date{300}, Value::null(), Value(), false}}}),
      bytes({1, 10, 2, 1, 'n', 4, 3, 1,    'l',  9, 7,    3, 7, 2, 'a', 'b',
             6, 0,  0, 0, 0,   0, 0, 0xF0, 0x3F, 8, 0xD8, 4, 1, 0, 2}));
  EXPECT_EQ(encoded(std::numeric_limits<uint64_t>::max()),
            bytes({1, 5, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1}));
}

TEST(ValueCodec, EncodingAppends) {
  std::string out = "before";
  ASSERT_TRUE(encodeValue(true, out));
  EXPECT_EQ(out, "before" + bytes({1, 3}));
}

TEST(ValueCodec, TheDeepestValueIsTakenAndOneDeeperIsRefused) {
  const Value deepest = nested(kMaxStoredDepth);
  EXPECT_EQ(decoded(encoded(deepest)), deepest);
  std::string out = "before";
  EXPECT_FALSE(encodeValue(nested(kMaxStoredDepth + 1), out));
  EXPECT_EQ(out, "before");
}

TEST(ValueCodec, BytesNestedTooDeepAreRefused) {
  std::string deep = bytes({1});
  for (size_t i = 0; i < kMaxStoredDepth + 1; ++i)
    deep += bytes({9, 1});
  EXPECT_FALSE(decoded(deep + bytes({1})).has_value());
}

TEST(ValueCodec, AValueTooLongIsRefused) {
  std::string out = "before";
  EXPECT_FALSE(encodeValue(std::string(kMaxStoredBytes + 1, 'x'), out));
  EXPECT_EQ(out, "before");
}

TEST(ValueCodec, EveryTruncationIsRefused) {
  const std::string whole = encoded(Dictionary{{"key", Array{1000, "text", 2.5, kit::Date{77777}}}, {"more", true}});
  for (size_t size = 0; size < whole.size(); ++size)
    EXPECT_FALSE(decoded(whole.substr(0, size)).has_value()) << size;
}

TEST(ValueCodec, BytesThatAreNoValueAreRefused) {
  EXPECT_FALSE(decoded("").has_value());
  EXPECT_FALSE(decoded(bytes({2, 1})).has_value()) << "a later version";
  EXPECT_FALSE(decoded(bytes({1, 11})).has_value()) << "an unknown tag";
  EXPECT_FALSE(decoded(bytes({1, 1, 1})).has_value()) << "bytes behind the value";
  EXPECT_FALSE(decoded(bytes({1, 5, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2})).has_value())
      << "a number beyond 64 bits";
  EXPECT_FALSE(decoded(bytes({1, 5, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0})).has_value())
      << "a number that does not end";
  EXPECT_FALSE(decoded(bytes({1, 7, 5, 'a'})).has_value()) << "a string longer than the bytes";
  EXPECT_FALSE(decoded(bytes({1, 9, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1})).has_value()) << "a count that lies";
  EXPECT_FALSE(decoded(bytes({1, 10, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1, 'k', 1})).has_value()) << "a count that lies";
}

TEST(ValueCodec, ARepeatedKeyIsRefused) {
  EXPECT_FALSE(decoded(bytes({1, 10, 2, 1, 'k', 1, 1, 'k', 1})).has_value());
  std::string many = bytes({1, 10, 101});
  for (int i = 0; i < 100; ++i)
    many += bytes({2, 'a' + i / 10, 'a' + i % 10, 1});
  EXPECT_TRUE(decoded(std::string(many).replace(2, 1, bytes({100}))).has_value());
  EXPECT_FALSE(decoded(many + bytes({2, 'e', 'e', 1})).has_value());
}

TEST(ValueCodec, GarbageNeverHarmsAndWhatIsTakenIsAValue) {
  std::mt19937 random(20240817);  // a fixed seed, so that a failure recurs
  const std::string sample = encoded(Array{Dictionary{{"a", 1}, {"b", "two"}}, 3.5, Array{Value::null(), true}});
  ValueDecoder decoder;
  int taken = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string input = sample;
    for (int change = 0; change < 3; ++change)
      input[1 + random() % (input.size() - 1)] = static_cast<char>(random());
    const std::optional<Value> value = decoder.decode(input);
    if (!value)
      continue;
    ++taken;
    EXPECT_EQ(decoded(encoded(*value)).has_value(), true);
  }
  EXPECT_GT(taken, 0);
}

TEST(ValueCodec, ADecoderSharesShortStringsAmongRecords) {
  const std::string record = encoded(Dictionary{{"activityGroup", "shop"}});
  ValueDecoder decoder;
  const Value first = *decoder.decode(record);
  const Value second = *decoder.decode(record);
  EXPECT_TRUE(first.dictionary().begin()->key.identicalTo(second.dictionary().begin()->key));
  EXPECT_TRUE(first["activityGroup"].identicalTo(second["activityGroup"]));
}

TEST(ValueCodec, ADecoderGoesOnAfterGarbage) {
  ValueDecoder decoder;
  EXPECT_FALSE(decoder.decode(bytes({1, 10, 2, 1, 'k', 1, 1})).has_value());
  EXPECT_EQ(decoder.decode(encoded(Dictionary{{"k", 2}})), Value(Dictionary{{"k", 2}}));
}

}  // namespace
}  // namespace morvik::runtime
