#include "kit/value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kit/json_codec.h"
#include "tests/kit/live_allocations.h"

namespace morvik::test {
namespace {

using kit::Array;
using kit::Date;
using kit::Dictionary;
using kit::Kind;
using kit::MutableArray;
using kit::MutableDictionary;
using kit::Value;

constexpr int64_t kMaxInteger = std::numeric_limits<int64_t>::max();
constexpr int64_t kMinInteger = std::numeric_limits<int64_t>::min();
constexpr uint64_t kMaxUnsigned = std::numeric_limits<uint64_t>::max();
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInfinity = std::numeric_limits<double>::infinity();

/// One value of every kind, and of those that are told apart within a kind.
std::vector<Value> everyKind() {
  return {Value(),
          Value::null(),
          Value(true),
          Value(false),
          Value(5),
          Value(kMaxUnsigned),
          Value(2.5),
          Value("text"),
          Value(""),
          Value(Date{5}),
          Value(Array{1, "two"}),
          Value(Array()),
          Value(Dictionary{{"key", 1}}),
          Value(Dictionary())};
}

Array numbers(size_t count) {
  MutableArray array;
  for (size_t i = 0; i < count; ++i)
    array.append(static_cast<int64_t>(i));
  return Value(std::move(array)).array();
}

/// Sizes of the chunks in which the elements lie, told from their places in memory.
std::vector<size_t> chunkSizesOf(const Array& array) {
  std::vector<size_t> sizes;
  const Value* expected = nullptr;
  for (const Value& element : array) {
    if (&element != expected)
      sizes.push_back(0);
    ++sizes.back();
    expected = &element + 1;
  }
  return sizes;
}

/// Elements of `array` that lie where no element of `other` does.
size_t copiedFrom(const Array& other, const Array& array) {
  std::vector<const Value*> places;
  for (const Value& element : other)
    places.push_back(&element);
  std::sort(places.begin(), places.end(), std::less<>());
  return static_cast<size_t>(std::count_if(array.begin(), array.end(), [&places](const Value& element) {
    return !std::binary_search(places.begin(), places.end(), &element, std::less<>());
  }));
}

Array without(const Array& array, size_t index) {
  MutableArray copy(array);
  copy.removeAt(index);
  return Value(std::move(copy)).array();
}

std::vector<int64_t> integersOf(const Array& array) {
  std::vector<int64_t> integers;
  for (const Value& element : array)
    integers.push_back(element.integer());
  return integers;
}

// -------------------------------------------------------------------------------------------------------------- kinds

TEST(Value, Takes16Bytes) {
  EXPECT_EQ(sizeof(Value), 16u);
}

TEST(Value, IsAbsentByDefault) {
  const Value value;
  EXPECT_EQ(value.kind(), Kind::kAbsent);
  EXPECT_TRUE(value.isAbsent());
  EXPECT_FALSE(value.isNull());
  EXPECT_TRUE(value.isNil());
}

TEST(Value, KnowsItsKind) {
  const std::vector<Kind> expected = {Kind::kAbsent,     Kind::kNull,      Kind::kBoolean, Kind::kBoolean,
                                      Kind::kInteger,    Kind::kUnsigned,  Kind::kDouble,  Kind::kString,
                                      Kind::kString,     Kind::kDate,      Kind::kArray,   Kind::kArray,
                                      Kind::kDictionary, Kind::kDictionary};
  const std::vector<Value> values = everyKind();
  ASSERT_EQ(values.size(), expected.size());
  for (size_t i = 0; i < values.size(); ++i) {
    const Kind kind = expected[i];
    const Value& value = values[i];
    EXPECT_EQ(value.kind(), kind) << i;
    EXPECT_EQ(value.isAbsent(), kind == Kind::kAbsent) << i;
    EXPECT_EQ(value.isNull(), kind == Kind::kNull) << i;
    EXPECT_EQ(value.isNil(), kind == Kind::kAbsent || kind == Kind::kNull) << i;
    EXPECT_EQ(value.isBoolean(), kind == Kind::kBoolean) << i;
    EXPECT_EQ(value.isNumber(), kind == Kind::kInteger || kind == Kind::kUnsigned || kind == Kind::kDouble) << i;
    EXPECT_EQ(value.isString(), kind == Kind::kString) << i;
    EXPECT_EQ(value.isDate(), kind == Kind::kDate) << i;
    EXPECT_EQ(value.isArray(), kind == Kind::kArray) << i;
    EXPECT_EQ(value.isDictionary(), kind == Kind::kDictionary) << i;
  }
}

TEST(Value, AnswersNothingWhenAskedForAnotherKind) {
  for (const Value& value : everyKind()) {
    if (!value.isBoolean()) {
      EXPECT_FALSE(value.boolean());
    }
    if (value.kind() != Kind::kInteger) {
      EXPECT_EQ(value.integer(), 0);
    }
    if (value.kind() != Kind::kUnsigned) {
      EXPECT_EQ(value.unsignedInteger(), 0u);
    }
    if (value.kind() != Kind::kDouble) {
      EXPECT_EQ(value.number(), 0.0);
    }
    if (!value.isString()) {
      EXPECT_EQ(value.string(), "");
    }
    if (!value.isDate()) {
      EXPECT_EQ(value.date(), Date{});
    }
    if (!value.isArray()) {
      EXPECT_TRUE(value.array().empty());
    }
    if (!value.isDictionary()) {
      EXPECT_TRUE(value.dictionary().empty());
      EXPECT_TRUE(value["key"].isAbsent());
    }
    if (!value.isArray() && !value.isDictionary()) {
      EXPECT_EQ(value.size(), 0u);
    }
  }
}

TEST(Value, HoldsEachKindsContent) {
  EXPECT_TRUE(Value(true).boolean());
  EXPECT_EQ(Value(-7).integer(), -7);
  EXPECT_EQ(Value(kMinInteger).integer(), kMinInteger);
  EXPECT_EQ(Value(kMaxInteger).integer(), kMaxInteger);
  EXPECT_EQ(Value(-2.5).number(), -2.5);
  EXPECT_EQ(Value(Date{-3}).date(), Date{-3});
  EXPECT_EQ(Value(std::string("text")).string(), "text");
  EXPECT_EQ(Value(std::string_view("text")).string(), "text");
  EXPECT_EQ(Value("text").string(), "text");
}

TEST(Value, TakesAnUnsignedNumberThatFitsAsASignedOne) {
  EXPECT_EQ(Value(uint64_t{5}).kind(), Kind::kInteger);
  EXPECT_EQ(Value(static_cast<uint64_t>(kMaxInteger)).integer(), kMaxInteger);
  const Value first_beyond(static_cast<uint64_t>(kMaxInteger) + 1);
  EXPECT_EQ(first_beyond.kind(), Kind::kUnsigned);
  EXPECT_EQ(first_beyond.unsignedInteger(), uint64_t{1} << 63);
  EXPECT_EQ(Value(kMaxUnsigned).unsignedInteger(), kMaxUnsigned);
}

TEST(Value, KeepsAnyBytesOfAString) {
  const std::string bytes("a\0b\xFF", 4);
  EXPECT_EQ(Value(bytes).string(), bytes);
  EXPECT_EQ(Value(std::string(100'000, 'x')).string().size(), 100'000u);
}

TEST(Value, CopiesTheBytesOfAString) {
  std::string text = "before";
  const Value value(text);
  text = "after!";
  EXPECT_EQ(value.string(), "before");
}

TEST(Value, HoldsALiteralWithoutAllocating) {
  const size_t before = liveAllocations();
  const Value value = Value::literal("a literal of more than sixteen bytes");
  const Value copy = value;
  const size_t after = liveAllocations();
  EXPECT_EQ(after, before);
  EXPECT_EQ(copy.string(), "a literal of more than sixteen bytes");
  EXPECT_EQ(value, Value(std::string("a literal of more than sixteen bytes")));
  EXPECT_EQ(Value::literal(""), Value(""));
}

// --------------------------------------------------------------------------------------------------- copying, sharing

/// Lists of each shape that a change meets: with and without room, held once, shared, and grown behind a copy.
void changeListsOfEachShape() {
  for (const int size : {0, 1, 3, 4, 8, 63, 64, 65, 255, 256, 257}) {
    MutableArray list;
    for (int i = 0; i < size; ++i)
      list.append(i);
    const Value earlier{MutableArray(list)};
    MutableArray other(earlier);
    list.append(std::string("an element of more than sixteen bytes"));
    other.append(1);
    MutableArray third(earlier);
    third.append(2);
    third.removeAt(0);
    if (third.size() > 0)
      third.replaceAt(0, std::string("another of more than sixteen bytes"));
  }
}

TEST(Value, LeavesNothingBehindWhereMemoryRunsOut) {
  const size_t before = liveAllocations();
  size_t allocations = 0;
  while (runsOutOfMemory(allocations, changeListsOfEachShape)) {
    ASSERT_EQ(liveAllocations(), before) << "after " << allocations << " allocations";
    ++allocations;
  }
  EXPECT_GT(allocations, 100U);
  EXPECT_EQ(liveAllocations(), before);
}

TEST(Value, SharesWhatItCopies) {
  const Value original(std::string("a text of some length"));
  const size_t before = liveAllocations();
  const Value copy = original;
  EXPECT_EQ(liveAllocations(), before);
  EXPECT_TRUE(copy.identicalTo(original));
  EXPECT_EQ(copy.string().data(), original.string().data());
}

TEST(Value, OutlivesTheValueItWasCopiedFrom) {
  Value copy;
  {
    const Value original(Dictionary{{"key", std::string("a text of some length")}});
    copy = original;
  }
  EXPECT_EQ(copy["key"].string(), "a text of some length");
}

TEST(Value, IsAbsentAfterItWasMovedFrom) {
  Value from("text");
  const Value to = std::move(from);
  EXPECT_TRUE(from.isAbsent());  // NOLINT(bugprone-use-after-move): that is the question
  EXPECT_EQ(to.string(), "text");
}

TEST(Value, AssignsToItself) {
  Value value(std::string("text"));
  const Value& same = value;
  value = same;
  EXPECT_EQ(value.string(), "text");
}

TEST(Value, SwapsAnyTwoKinds) {
  for (const Value& a : everyKind()) {
    for (const Value& b : everyKind()) {
      Value first = a;
      Value second = b;
      first.swap(second);
      EXPECT_TRUE(first == b);
      EXPECT_TRUE(second == a);
    }
  }
}

TEST(Value, LeavesNothingBehind) {
  const size_t before = liveAllocations();
  {
    std::vector<Value> values = everyKind();
    std::vector<Value> copies = values;
    copies[0] = Value(numbers(1000));
    MutableArray array(copies[0]);
    array.append(Value(values[12]));
    MutableArray other(copies[0]);
    other.append(1);
    other.removeAllEqualTo(5);
  }
  EXPECT_EQ(liveAllocations(), before);
}

// ----------------------------------------------------------------------------------------------------------- equality

TEST(Value, EqualsItselfAndNoOtherKind) {
  const std::vector<Value> values = everyKind();
  for (size_t i = 0; i < values.size(); ++i) {
    for (size_t j = 0; j < values.size(); ++j)
      EXPECT_EQ(values[i] == values[j], i == j) << i << " and " << j;
  }
}

TEST(Value, ComparesNumbersByValueAcrossKinds) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1.0), Value(1));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(-1), Value(-1.5));
  EXPECT_EQ(Value(0), Value(-0.0));
  EXPECT_EQ(Value(uint64_t{7}), Value(7));
  EXPECT_NE(Value(kMaxUnsigned), Value(-1));
  EXPECT_EQ(Value(uint64_t{1} << 63), Value(9223372036854775808.0));
  EXPECT_EQ(Value(9223372036854775808.0), Value(uint64_t{1} << 63));
  EXPECT_NE(Value(kMaxUnsigned), Value(18446744073709551616.0));
  EXPECT_NE(Value(kMaxUnsigned), Value(-1.0));
  EXPECT_EQ(Value(kMinInteger), Value(-9223372036854775808.0));
  EXPECT_NE(Value(kMaxInteger), Value(9223372036854775808.0)) << "the double is one more";
  EXPECT_NE(Value((int64_t{1} << 53) + 1), Value(9007199254740992.0)) << "not by way of rounding";
  EXPECT_NE(Value(1), Value(kInfinity));
  EXPECT_NE(Value(1), Value(-kInfinity));
  EXPECT_NE(Value(1), Value(1e300));
  EXPECT_NE(Value(1), Value(-1e300));
}

TEST(Value, ComparesNoBooleanWithANumberOrText) {
  EXPECT_NE(Value(true), Value(1));
  EXPECT_NE(Value(false), Value(0));
  EXPECT_NE(Value(true), Value("true"));
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(5), Value(Date{5}));
}

TEST(Value, NeverEqualsNotANumberButIsIdenticalToIt) {
  EXPECT_NE(Value(kNaN), Value(kNaN));
  EXPECT_NE(Value(kNaN), Value(0));
  EXPECT_NE(Value(kMaxUnsigned), Value(kNaN));
  EXPECT_TRUE(Value(kNaN).identicalTo(Value(kNaN)));
}

TEST(Value, ComparesDeeply) {
  const auto make = [](int last) {
    return Value(Dictionary{{"list", Array{1, Dictionary{{"x", Array{"deep", last}}}}}, {"flag", true}});
  };
  EXPECT_EQ(make(1), make(1));
  EXPECT_NE(make(1), make(2));
  EXPECT_FALSE(make(1).identicalTo(make(1)));
}

TEST(Value, ComparesArraysInOrder) {
  EXPECT_EQ(Value(Array{1, 2.0}), Value(Array{1.0, 2}));
  EXPECT_NE(Value(Array{1, 2}), Value(Array{2, 1}));
  EXPECT_NE(Value(Array{1, 2}), Value(Array{1, 2, 3}));
  EXPECT_NE(Value(numbers(200)), Value(numbers(199)));
  EXPECT_EQ(Value(numbers(200)), Value(numbers(200)));
}

TEST(Value, ComparesDictionariesWithoutOrder) {
  EXPECT_EQ(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"b", 2}, {"a", 1}}));
  EXPECT_NE(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"a", 1}, {"c", 2}}));
  EXPECT_NE(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"a", 1}}));
  EXPECT_NE(Value(Dictionary{{"a", Value::null()}}), Value(Dictionary{{"b", Value::null()}}));
  const Value in_order = Dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  EXPECT_EQ(in_order, Value(Dictionary{{"a", 1}, {"c", 3}, {"b", 2}}));
  EXPECT_NE(in_order, Value(Dictionary{{"a", 1}, {"c", 2}, {"b", 3}}));
  EXPECT_NE(in_order, Value(Dictionary{{"a", 1}, {"b", 3}, {"c", 3}}));
  EXPECT_EQ(Value(Dictionary{}), Value(Dictionary{}));
}

TEST(Value, IsIdenticalOnlyToTheSameObjectOrTheSameScalar) {
  const std::vector<Value> values = everyKind();
  for (size_t i = 0; i < values.size(); ++i) {
    const Value copy = values[i];
    EXPECT_TRUE(copy.identicalTo(values[i])) << i;
    for (size_t j = 0; j < values.size(); ++j)
      EXPECT_EQ(values[i].identicalTo(values[j]), i == j) << i << " and " << j;
  }
  EXPECT_FALSE(Value(std::string("text")).identicalTo(Value(std::string("text"))));
  EXPECT_FALSE(Value(Array{1}).identicalTo(Value(Array{1})));
  EXPECT_FALSE(Value(Dictionary{{"a", 1}}).identicalTo(Value(Dictionary{{"a", 1}})));
  EXPECT_FALSE(Value(1).identicalTo(Value(1.0)));
  EXPECT_FALSE(Value(0.0).identicalTo(Value(-0.0)));
}

// ------------------------------------------------------------------------------------------------------------- arrays

TEST(Array, IteratesInOrder) {
  const Array array{1, "two", Value(), Value::null()};
  ASSERT_EQ(array.size(), 4u);
  EXPECT_EQ(array[0], Value(1));
  EXPECT_EQ(array[1], Value("two"));
  EXPECT_TRUE(array[2].isAbsent());
  EXPECT_TRUE(array[3].isNull());
  EXPECT_TRUE(array[4].isAbsent()) << "past the end";
  EXPECT_TRUE(Array()[0].isAbsent());
  size_t count = 0;
  for (auto element = array.begin(); element != array.end(); element++)
    EXPECT_EQ(element->kind(), array[count++].kind());
  EXPECT_EQ(count, 4u);
}

TEST(Array, OutlivesTheValueItCameFrom) {
  Array array;
  {
    const Value value(numbers(100));
    array = value.array();
  }
  EXPECT_EQ(array[99], Value(99));
}

TEST(MutableArray, GrowsAcrossAllItsChunks) {
  MutableArray array;
  for (int i = 0; i < 10'000; ++i) {
    array.append(i);
    ASSERT_EQ(array.size(), static_cast<size_t>(i) + 1);
    ASSERT_EQ(array[static_cast<size_t>(i)], Value(i));
  }
  const Array made = Value(std::move(array)).array();
  for (size_t i = 0; i < 10'000; ++i)
    ASSERT_EQ(made[i], Value(static_cast<int64_t>(i)));
}

TEST(MutableArray, IsEmptyForWhatIsNoArray) {
  for (const Value& value : everyKind()) {
    const MutableArray array(value);
    EXPECT_EQ(array.size(), value.isArray() ? value.size() : 0u);
    EXPECT_EQ(array.empty(), array.size() == 0);
  }
}

TEST(MutableArray, BecomesAnEmptyArrayAndNotAnAbsentValue) {
  EXPECT_EQ(Value(MutableArray()).kind(), Kind::kArray);
  MutableArray array(numbers(3));
  array.removeAll();
  EXPECT_EQ(Value(std::move(array)), Value(Array()));
}

TEST(MutableArray, AppendingToAnOldHandleLeavesTheNewerOneAlone) {
  for (const size_t size : {0u, 1u, 3u, 4u, 63u, 64u, 65u, 127u, 128u, 300u}) {
    const Array old_handle = numbers(size);
    MutableArray first(old_handle);
    first.append("first");
    MutableArray second(old_handle);
    second.append("second");
    second.append("third");
    first.append("fourth");
    EXPECT_EQ(old_handle.size(), size);
    ASSERT_EQ(first.size(), size + 2);
    ASSERT_EQ(second.size(), size + 2);
    EXPECT_EQ(first[size], Value("first"));
    EXPECT_EQ(first[size + 1], Value("fourth"));
    EXPECT_EQ(second[size], Value("second"));
    EXPECT_EQ(second[size + 1], Value("third"));
    EXPECT_TRUE(old_handle[size].isAbsent());
    for (size_t i = 0; i < size; ++i) {
      ASSERT_EQ(first[i], Value(static_cast<int64_t>(i)));
      ASSERT_EQ(second[i], Value(static_cast<int64_t>(i)));
    }
  }
}

TEST(MutableArray, KeepsEveryEarlierVersionAsItWas) {
  std::vector<Array> versions;
  MutableArray array;
  for (int i = 0; i < 200; ++i) {
    versions.push_back(Value(MutableArray(array)).array());
    array.append(i);
  }
  for (size_t i = 0; i < versions.size(); ++i) {
    ASSERT_EQ(versions[i].size(), i);
    EXPECT_EQ(Value(versions[i]), Value(numbers(i)));
  }
}

TEST(MutableArray, CopiesNoElementWhenItAppendsToALongSharedArray) {
  const Array shared = numbers(100'000);
  MutableArray array(shared);
  const size_t before = liveAllocations();
  array.append(1);
  const size_t added = liveAllocations() - before;
  EXPECT_LE(added, 2u) << "a view, and at most one chunk";
  EXPECT_EQ(Value(std::move(array)).array().sharedPrefix(shared), 100'000u);
}

TEST(MutableArray, TakesOverADictionaryWithoutCopyingItOnALongSharedArray) {
  const Array shared = numbers(1000);
  MutableArray array(shared);
  Value record(Dictionary{{"key", "value"}});
  const Value same = record;
  array.append(std::move(record));
  EXPECT_TRUE(array[1000].identicalTo(same));
}

TEST(MutableArray, HoldsACopyOfItselfAndGoesWithIt) {
  for (const size_t size : {1u, 2u, 4u, 5u, 63u, 64u, 65u, 256u}) {
    const size_t before = liveAllocations();
    {
      MutableArray array(numbers(size));
      const Value itself{Array(Value(MutableArray(array)).array())};
      array.append(itself);
      array.append(Dictionary{{"deeper", Dictionary{{"list", Value(MutableArray(array))}}}});
      array.append("and on");
      ASSERT_EQ(array.size(), size + 3);
      EXPECT_EQ(array[size], itself);
      EXPECT_EQ(array[size].size(), size);
      EXPECT_EQ(array[size + 1]["deeper"]["list"].size(), size + 1);
    }
    EXPECT_EQ(liveAllocations(), before) << "a list of " << size << " that holds itself was never freed";
  }
}

TEST(MutableArray, HoldsItselfWithinManyDictionariesAndGoesWithIt) {
  const size_t before = liveAllocations();
  {
    MutableArray array(numbers(5));
    Value nested(MutableArray{array});
    for (int depth = 0; depth < 50; ++depth)
      nested = Value(Dictionary{{"inner", nested}});
    array.append(nested);
    EXPECT_EQ(array[5], nested);
  }
  EXPECT_EQ(liveAllocations(), before);
}

TEST(MutableArray, TakesAnArrayInPlaceAsLongAsNobodySharesTheList) {
  MutableArray array(numbers(70));
  const Value* last = &array[69];
  array.append(Array{1});
  EXPECT_EQ(&array[69], last) << "the chunk was copied";
  const Value shared{MutableArray(array)};
  array.append(Array{2});
  EXPECT_NE(&array[69], last) << "the list that is shared must not take it";
  EXPECT_EQ(shared.size(), 71u);
}

TEST(MutableArray, RemovesEveryElementThatEquals) {
  MutableArray array(Array{1, "x", 1.0, Dictionary{{"a", 1}}, 2, Dictionary{{"a", 1.0}}, 1});
  EXPECT_EQ(array.removeAllEqualTo(1), 3u);
  EXPECT_EQ(array.removeAllEqualTo(Dictionary{{"a", 1}}), 2u);
  EXPECT_EQ(array.removeAllEqualTo("not there"), 0u);
  EXPECT_EQ(Value(std::move(array)), Value(Array{"x", 2}));
}

TEST(MutableArray, RemovesByAnElementOfItsOwn) {
  MutableArray array(Array{"a", "b", "a"});
  EXPECT_EQ(array.removeAllEqualTo(array[0]), 2u);
  EXPECT_EQ(Value(std::move(array)), Value(Array{"b"}));
}

TEST(MutableArray, KeepsWhatIsWantedInOrderAndSharesWhatStandsBeforeTheFirstRemoved) {
  const Array original = numbers(300);
  MutableArray array(original);
  array.retainIf([](const Value& element) { return element.integer() < 200 || element.integer() % 2 == 0; });
  ASSERT_EQ(array.size(), 250u);
  EXPECT_EQ(array[200], Value(200));
  EXPECT_EQ(array[201], Value(202));
  EXPECT_EQ(array[249], Value(298));
  EXPECT_EQ(Value(original), Value(numbers(300))) << "the original is as it was";
  EXPECT_EQ(Value(std::move(array)).array().sharedPrefix(original), 201u);
}

TEST(MutableArray, IsTheSameObjectWhenNothingIsRemoved) {
  const Value original(numbers(300));
  MutableArray array(original);
  array.retainIf([](const Value&) { return true; });
  EXPECT_TRUE(Value(std::move(array)).identicalTo(original));
}

TEST(MutableArray, MayLoseEverything) {
  MutableArray array(numbers(100));
  array.retainIf([](const Value&) { return false; });
  EXPECT_TRUE(array.empty());
  array.append("again");
  EXPECT_EQ(Value(std::move(array)), Value(Array{"again"}));
}

TEST(MutableArray, AppendsAfterItWasCut) {
  const Array original = numbers(200);
  for (const int64_t kept : {0, 1, 63, 64, 65, 128, 199}) {
    MutableArray array(original);
    array.retainIf([kept](const Value& element) { return element.integer() < kept; });
    array.append("new");
    ASSERT_EQ(array.size(), static_cast<size_t>(kept) + 1);
    EXPECT_EQ(array[static_cast<size_t>(kept)], Value("new"));
  }
  EXPECT_EQ(Value(original), Value(numbers(200)));
}

TEST(MutableArray, ReplacesAnElementAndLeavesTheOriginalAlone) {
  const Array original = numbers(200);
  for (const size_t index : {0u, 1u, 63u, 64u, 150u, 199u}) {
    MutableArray array(original);
    array.replaceAt(index, "new");
    ASSERT_EQ(array.size(), 200u);
    EXPECT_EQ(array[index], Value("new"));
    EXPECT_EQ(array[199], index == 199 ? Value("new") : Value(199));
    EXPECT_EQ(original[index], Value(static_cast<int64_t>(index)));
  }
}

TEST(MutableArray, ReplacesNothingPastTheEnd) {
  const Value original(numbers(3));
  MutableArray array(original);
  array.replaceAt(3, "new");
  EXPECT_TRUE(Value(std::move(array)).identicalTo(original));
  MutableArray empty;
  empty.replaceAt(0, "new");
  EXPECT_TRUE(empty.empty());
}

TEST(MutableArray, CopiesOneChunkOfALongArrayWhenItReplacesAnElement) {
  const Array original = numbers(10'000);
  MutableArray array(original);
  array.replaceAt(5'000, "new");
  const Array replaced = Value(std::move(array)).array();
  EXPECT_EQ(copiedFrom(original, replaced), 64u);
  EXPECT_EQ(replaced.sharedPrefix(original), 5'000u);
}

TEST(MutableArray, RemovesTheElementAtAnyIndexAndLeavesTheOriginalAlone) {
  for (const size_t size : {1u, 2u, 4u, 5u, 63u, 64u, 65u, 128u, 129u, 200u}) {
    const Array original = numbers(size);
    for (size_t index = 0; index < size; ++index) {
      std::vector<int64_t> expected = integersOf(original);
      expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(index));
      const Array shorter = without(original, index);
      ASSERT_EQ(integersOf(shorter), expected) << index << " of " << size;
      for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(shorter[i], Value(expected[i])) << index << " of " << size;
      ASSERT_TRUE(shorter[expected.size()].isAbsent());
    }
    EXPECT_EQ(Value(original), Value(numbers(size)));
  }
}

TEST(MutableArray, RemovesNothingPastTheEnd) {
  const Value original(numbers(3));
  MutableArray array(original);
  array.removeAt(3);
  EXPECT_TRUE(Value(std::move(array)).identicalTo(original));
  MutableArray empty;
  empty.removeAt(0);
  EXPECT_EQ(Value(std::move(empty)), Value(Array()));
}

TEST(MutableArray, CopiesAChunkOrTwoOfALongArrayWhenItRemovesAnElement) {
  Array array = numbers(20'000);
  std::mt19937 chance(5);
  for (int round = 0; round < 40; ++round) {
    MutableArray copy(array);
    const size_t before = liveAllocations();
    copy.removeAt(chance() % copy.size());
    const size_t added = liveAllocations() - before;
    const Array shorter = Value(std::move(copy)).array();
    ASSERT_LE(added, 3u) << "a view, a row of chunks, and one chunk";
    ASSERT_LE(copiedFrom(array, shorter), 64u);
    array = shorter;
  }
}

TEST(MutableArray, SharesTheChunksThatLoseNoElement) {
  const Array original = numbers(10'000);
  MutableArray array(original);
  array.retainIf([](const Value& element) { return element.integer() % 1000 != 77; });
  const Array rest = Value(std::move(array)).array();
  ASSERT_EQ(rest.size(), 9'990u);
  EXPECT_EQ(copiedFrom(original, rest), 10u * 63);
}

TEST(MutableArray, NeverKeepsNeighbouringChunksThatFitIntoOne) {
  std::mt19937 chance(11);
  MutableArray array(numbers(5'000));
  int64_t next = 5'000;
  while (!array.empty()) {
    switch (chance() % 8) {
      case 0:
        array.append(next++);
        break;
      case 1:
        array.replaceAt(chance() % array.size(), next++);
        break;
      case 2: {
        const auto divisor = static_cast<int64_t>(chance() % 300 + 100);
        array.retainIf([divisor](const Value& element) { return element.integer() % divisor != 0; });
        break;
      }
      default:
        array.removeAt(chance() % array.size());
    }
    const std::vector<size_t> sizes = chunkSizesOf(Value(MutableArray(array)).array());
    for (size_t i = 0; i + 1 < sizes.size(); ++i)
      ASSERT_GT(sizes[i] + sizes[i + 1], 64u) << "chunk " << i << " of " << sizes.size();
  }
}

TEST(MutableArray, LeavesHalfTheChunksAtMostEmptyHoweverManyElementsGo) {
  MutableArray array(numbers(64'000));
  array.retainIf([](const Value& element) { return element.integer() % 64 == 5; });
  EXPECT_EQ(chunkSizesOf(Value(MutableArray(array)).array()).size(), 16u) << "a thousand single elements";
  MutableArray one_by_one(numbers(6'400));
  for (size_t left = 6'400; left > 100; --left)
    one_by_one.removeAt(left * 7919 % left);
  EXPECT_LE(chunkSizesOf(Value(std::move(one_by_one)).array()).size(), 3u);
}

TEST(MutableArray, AppendsInPlaceAfterARemoval) {
  for (const size_t removed : {0u, 64u, 129u}) {
    MutableArray array(without(numbers(130), removed));
    array.append("makes room");
    const Value* last = &array[129];
    const Array older = Value(MutableArray(array)).array();
    const size_t before = liveAllocations();
    array.append(1);
    const size_t added = liveAllocations() - before;
    EXPECT_LE(added, 1u) << "a view at most";
    EXPECT_EQ(&array[129], last) << "the chunk was copied after element " << removed << " went";
    EXPECT_EQ(array[130], Value(1));
    EXPECT_EQ(older.size(), 130u);
    EXPECT_TRUE(older[130].isAbsent());
  }
}

TEST(MutableArray, TakesTheNextPlaceOfAChunkThatStandsInTheMiddleElsewhere) {
  const Array original = without(numbers(192), 70);  // chunks of 64, 63 and 64 elements
  ASSERT_EQ(chunkSizesOf(original), (std::vector<size_t>{64, 63, 64}));
  MutableArray first(original);
  first.retainIf([](const Value& element) { return element.integer() < 128; });
  MutableArray second(first);
  first.append("first");
  second.append("second");
  ASSERT_EQ(chunkSizesOf(Value(MutableArray(first)).array()), (std::vector<size_t>{64, 64}));
  EXPECT_EQ(first[127], Value("first"));
  EXPECT_EQ(second[127], Value("second"));
  EXPECT_EQ(original[127], Value(128));
  for (int i = 0; i < 100; ++i)
    first.append(i);
  EXPECT_EQ(first[227], Value(99));
  EXPECT_EQ(original[190], Value(191));
  EXPECT_EQ(Value(original), Value(without(numbers(192), 70)));
}

TEST(MutableArray, HoldsACopyOfItselfAfterRemovalsAndGoesWithIt) {
  for (const size_t size : {2u, 64u, 65u, 130u, 256u}) {
    const size_t before = liveAllocations();
    {
      MutableArray array(numbers(size));
      array.append(Value(MutableArray(array)));
      array.removeAt(0);
      const Value shorter{MutableArray(array)};
      array.append(shorter);
      array.append(Dictionary{{"deeper", Value(MutableArray(array))}});
      array.removeAt(size / 2);
      array.replaceAt(0, Value(MutableArray(array)));
      array.append(Value(MutableArray(array)));
      ASSERT_EQ(array.size(), size + 2);
      EXPECT_EQ(array[size - 1], shorter);
      EXPECT_EQ(array[size + 1].size(), size + 1);
    }
    EXPECT_EQ(liveAllocations(), before) << "a list of " << size << " that holds itself was never freed";
  }
}

TEST(MutableArray, IsAsItWasWhenTheQuestionWhatToKeepThrows) {
  const Value original(numbers(200));
  MutableArray array(original);
  EXPECT_THROW(array.retainIf([](const Value& element) {
    if (element.integer() == 150)
      throw std::runtime_error("no answer");
    return element.integer() % 2 == 0;
  }),
               std::runtime_error);
  EXPECT_TRUE(Value(std::move(array)).identicalTo(original));
}

TEST(Array, TellsHowFarTwoArraysRunThroughTheSamePlaces) {
  const Array original = numbers(200);
  const Array shorter = without(original, 70);
  EXPECT_EQ(original.begin().sharedRun(shorter.begin()), 64u);
  Array::Iterator in_original = original.begin();
  Array::Iterator in_shorter = shorter.begin();
  in_original += 64;
  in_shorter += 64;
  EXPECT_EQ(in_original.sharedRun(in_shorter), 0u) << "this chunk was copied";
  in_original += 64;
  in_shorter += 63;
  EXPECT_EQ(in_original.index(), 128u);
  EXPECT_EQ(*in_original, *in_shorter);
  EXPECT_EQ(in_original.sharedRun(in_shorter), 72u) << "two chunks, to the end";
  EXPECT_EQ(in_original.sharedRun(original.begin()), 0u);
  in_original += 72;
  EXPECT_EQ(in_original, original.end());
  EXPECT_EQ(in_original.sharedRun(in_shorter), 0u);
  EXPECT_EQ(original.end().sharedRun(shorter.end()), 0u);
  EXPECT_EQ(original.begin().sharedRun(Array().begin()), 0u);
  EXPECT_EQ(Array().begin().sharedRun(Array().begin()), 0u);
  MutableArray longer(original);
  longer.append("more");
  EXPECT_EQ(original.begin().sharedRun(Value(std::move(longer)).array().begin()), 200u) << "grown from one";
}

TEST(Array, StepsToAnyElement) {
  for (const Array& array : {numbers(300), without(without(numbers(301), 200), 3)}) {
    for (size_t from = 0; from <= array.size(); from += 13) {
      for (size_t to = from; to <= array.size(); ++to) {
        Array::Iterator element = array.begin();
        element += from;
        element += to - from;
        ASSERT_EQ(element.index(), to);
        ASSERT_EQ(element == array.end(), to == array.size());
        if (to < array.size()) {
          ASSERT_EQ(&*element, &array[to]) << "by way of " << from;
        }
      }
    }
  }
}

TEST(Array, CountsTheElementsItSharesAtTheFront) {
  const Array original = numbers(150);
  EXPECT_EQ(original.sharedPrefix(original), 150u);
  EXPECT_EQ(original.sharedPrefix(Array()), 0u);
  EXPECT_EQ(Array().sharedPrefix(original), 0u);
  MutableArray longer(original);
  for (int i = 0; i < 100; ++i)
    longer.append("more");
  const Array appended = Value(std::move(longer)).array();
  EXPECT_EQ(appended.sharedPrefix(original), 150u);
  EXPECT_EQ(original.sharedPrefix(appended), 150u);
  MutableArray other(original);
  other.append("else");
  EXPECT_EQ(Value(std::move(other)).array().sharedPrefix(appended), 150u);
}

TEST(Array, CountsIdenticalObjectsOnlyAsShared) {
  const Value text(std::string("text"));
  EXPECT_EQ((Array{1, text, 2}).sharedPrefix(Array{1, text, 3}), 2u);
  EXPECT_EQ((Array{1, std::string("text")}).sharedPrefix(Array{1, text}), 1u);
  MutableArray replaced(numbers(150));
  replaced.replaceAt(100, "new");
  EXPECT_EQ(Value(std::move(replaced)).array().sharedPrefix(numbers(150)), 100u);
}

/// A list as the plain one it should behave like, of the very same elements.
using PlainList = std::vector<Value>;

void expectSame(const Array& array, const PlainList& list, int step) {
  ASSERT_EQ(array.size(), list.size()) << "after step " << step;
  size_t index = 0;
  for (const Value& element : array) {
    ASSERT_TRUE(element.identicalTo(list[index])) << "element " << index << " after step " << step;
    ASSERT_EQ(&element, &array[index]) << "element " << index << " after step " << step;
    ++index;
  }
  ASSERT_EQ(index, list.size()) << "after step " << step;
}

TEST(MutableArray, BehavesLikeAPlainListWhateverIsDoneToItOrToItsCopies) {
  constexpr size_t kLongest = 1'000;
  std::mt19937 chance(20240301);
  const auto below = [&chance](size_t limit) { return static_cast<size_t>(chance() % limit); };
  struct Twin {
    MutableArray array;
    PlainList list;
  };
  std::vector<Twin> twins(3);
  std::vector<std::pair<Array, PlainList>> older(8);
  int64_t next = 0;
  const auto newElement = [&]() -> Value {
    ++next;
    if (next % 3 == 0)
      return Dictionary{{"number", next}};
    return next % 50 == 1 ? Value(Array{next, Value(older[below(older.size())].first)}) : Value(next);
  };
  for (int step = 0; step < 6'000; ++step) {
    Twin& twin = twins[below(twins.size())];
    switch (below(8)) {
      case 0:
        twin = twins[below(twins.size())];
        break;
      case 1: {
        const size_t divisor = below(300) + 2;
        size_t index = 0;
        twin.array.retainIf([&](const Value&) { return index++ % divisor != 0; });
        index = 0;
        std::erase_if(twin.list, [&](const Value&) { return index++ % divisor == 0; });
        break;
      }
      case 2:
        if (!twin.list.empty()) {
          const size_t index = below(twin.list.size());
          const Value element = newElement();
          twin.array.replaceAt(index, element);
          twin.list[index] = element;
        }
        break;
      case 3:
      case 4:
        for (size_t count = below(30); count > 0 && !twin.list.empty(); --count) {
          const size_t index = below(4) == 0 ? 0 : below(twin.list.size());
          twin.array.removeAt(index);
          twin.list.erase(twin.list.begin() + static_cast<std::ptrdiff_t>(index));
        }
        break;
      default:
        for (size_t count = below(60); count > 0; --count) {
          const Value element = newElement();
          twin.array.append(element);
          twin.list.push_back(element);
        }
    }
    const Array now = Value(MutableArray(twin.array)).array();
    ASSERT_NO_FATAL_FAILURE(expectSame(now, twin.list, step));
    const auto& [old_array, old_list] = older[below(older.size())];
    ASSERT_NO_FATAL_FAILURE(expectSame(old_array, old_list, step));
    size_t same = 0;
    while (same < now.size() && same < old_array.size() && now[same].identicalTo(old_array[same]))
      ++same;
    ASSERT_EQ(now.sharedPrefix(old_array), same) << "after step " << step;
    if (below(4) == 0)
      older[below(older.size())] = {now, twin.list};
    if (twin.list.size() > kLongest) {
      twin.array.removeAll();
      twin.list.clear();
    }
  }
}

// ------------------------------------------------------------------------------------------------------- dictionaries

TEST(Dictionary, KeepsTheOrderOfInsertion) {
  MutableDictionary dictionary;
  dictionary.set("z", 1);
  dictionary.set("a", 2);
  dictionary.set("m", 3);
  dictionary.set("z", 4);
  dictionary.remove("a");
  dictionary.set("a", 5);
  std::string seen;
  for (const kit::Entry& entry : Value(std::move(dictionary)).dictionary())
    seen += std::string(entry.key.string()) + std::to_string(entry.value.integer());
  EXPECT_EQ(seen, "z4m3a5");
}

TEST(Dictionary, TellsAbsentFromNull) {
  const Dictionary dictionary{{"null", Value::null()}, {"empty", ""}};
  EXPECT_TRUE(dictionary["null"].isNull());
  EXPECT_TRUE(dictionary["missing"].isAbsent());
  EXPECT_TRUE(dictionary.contains("null"));
  EXPECT_FALSE(dictionary.contains("missing"));
  EXPECT_EQ(dictionary["empty"], Value(""));
  EXPECT_EQ(dictionary.size(), 2u);
}

TEST(Dictionary, IsEmptyWithoutEntries) {
  const Dictionary dictionary;
  EXPECT_TRUE(dictionary.empty());
  EXPECT_EQ(dictionary.begin(), dictionary.end());
  EXPECT_TRUE(dictionary[""].isAbsent());
  EXPECT_EQ(Value(dictionary).kind(), Kind::kDictionary);
  EXPECT_EQ(Value(MutableDictionary()).kind(), Kind::kDictionary);
  EXPECT_EQ(Value(Dictionary::fromEntries({})), Value(Dictionary()));
}

TEST(Dictionary, IsBuiltFromEntriesInOneAllocation) {
  std::vector<kit::Entry> entries;
  entries.push_back({Value::literal("a"), Value(1)});
  entries.push_back({Value::literal("b"), Value(2)});
  const size_t before = liveAllocations();
  const Dictionary dictionary = Dictionary::fromEntries(entries);
  EXPECT_EQ(liveAllocations(), before + 1);
  EXPECT_EQ(dictionary["b"], Value(2));
  EXPECT_TRUE(entries[0].key.isAbsent()) << "the entries are moved from";
}

TEST(Dictionary, OutlivesTheValueItCameFrom) {
  Dictionary dictionary;
  {
    const Value value(Dictionary{{"key", std::string("a text of some length")}});
    dictionary = value.dictionary();
  }
  EXPECT_EQ(dictionary["key"].string(), "a text of some length");
}

TEST(Dictionary, TakesTheLastValueOfARepeatedKeyOfAList) {
  const Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};
  EXPECT_EQ(dictionary.size(), 2u);
  EXPECT_EQ(dictionary["a"], Value(3));
}

TEST(MutableDictionary, LeavesTheOriginalAlone) {
  const Value original(Dictionary{{"a", 1}, {"b", 2}});
  MutableDictionary copy(original);
  copy.set("a", "changed");
  copy.add("c", 3);
  copy.remove("b");
  copy.remove("not there");
  EXPECT_EQ(original, Value(Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(copy.size(), 2u);
  EXPECT_EQ(copy["a"], Value("changed"));
  EXPECT_TRUE(copy["b"].isAbsent());
  EXPECT_EQ(copy.entries()[1].key, Value("c"));
  EXPECT_EQ(Value(std::move(copy)), Value(Dictionary{{"a", "changed"}, {"c", 3}}));
}

TEST(MutableDictionary, RemovesAKeyThatIsSetToAnAbsentValue) {
  MutableDictionary dictionary(Dictionary{{"a", 1}, {"b", 2}});
  dictionary.set("a", Value());
  dictionary.set("never there", Value());
  EXPECT_EQ(Value(std::move(dictionary)), Value(Dictionary{{"b", 2}}));
}

TEST(MutableDictionary, RemovesByAKeyOfItsOwn) {
  MutableDictionary dictionary(Dictionary{{std::string("first"), 1}, {std::string("second"), 2}});
  dictionary.remove(dictionary.entries()[0].key.string());
  EXPECT_EQ(Value(std::move(dictionary)), Value(Dictionary{{"second", 2}}));
}

TEST(MutableDictionary, IsEmptyForWhatIsNoDictionary) {
  for (const Value& value : everyKind())
    EXPECT_EQ(MutableDictionary(value).size(), value.isDictionary() ? value.size() : 0u);
}

// --------------------------------------------------------------------------------------------------------------- depth

Value nestedArrays(size_t depth) {
  Value nested(1);
  for (size_t i = 0; i < depth; ++i)
    nested = Value(Array{nested});
  return nested;
}

Value nestedDictionaries(size_t depth) {
  Value nested(1);
  for (size_t i = 0; i < depth; ++i)
    nested = Value(Dictionary{{"inner", nested}});
  return nested;
}

TEST(Value, ComparesWhatIsNestedAsDeepAsADocumentMayBe) {
  EXPECT_EQ(nestedArrays(kit::kMaxJsonDepth), nestedArrays(kit::kMaxJsonDepth));
  EXPECT_NE(nestedArrays(kit::kMaxJsonDepth), nestedArrays(kit::kMaxJsonDepth - 1));
  EXPECT_EQ(nestedDictionaries(kit::kMaxJsonDepth), nestedDictionaries(kit::kMaxJsonDepth));
}

TEST(Value, GoesWholeHoweverDeepItIsNested) {
  const size_t before = liveAllocations();
  for (const size_t depth : {size_t{63}, size_t{64}, size_t{65}, size_t{100'000}}) {
    nestedArrays(depth);
    EXPECT_EQ(liveAllocations(), before) << depth << " arrays";
    nestedDictionaries(depth);
    EXPECT_EQ(liveAllocations(), before) << depth << " dictionaries";
  }
}

TEST(Value, GoesWholeWhenDeepPartsBranch) {
  const size_t before = liveAllocations();
  {
    MutableArray branches;
    for (int i = 0; i < 10; ++i)
      branches.append(Dictionary{{"left", nestedArrays(200)}, {"right", nestedDictionaries(200)}});
    const Value kept = branches[3]["left"];
    branches.removeAll();
    EXPECT_EQ(kept.size(), 1u);
  }
  EXPECT_EQ(liveAllocations(), before);
}

// ------------------------------------------------------------------------------------------------------------- threads

TEST(Value, IsReadAndCopiedFromManyThreads) {
  const Value shared(Dictionary{{"list", numbers(500)}, {"text", std::string("a text of some length")}});
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([shared] {
      for (int i = 0; i < 500; ++i) {
        const Value copy = shared;
        const Array list = copy["list"].array();
        ASSERT_EQ(list[499], Value(499));
        ASSERT_EQ(copy["text"].string(), "a text of some length");
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST(MutableArray, IsAppendedToFromManyThreadsThatHoldCopiesOfOneArray) {
  constexpr int kThreads = 4;
  constexpr int kAppended = 300;
  for (const size_t size : {1u, 30u, 63u, 64u, 200u}) {
    const Array shared = numbers(size);
    std::vector<Array> results(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([shared, thread, &result = results[static_cast<size_t>(thread)]] {
        MutableArray array(shared);
        for (int i = 0; i < kAppended; ++i)
          array.append(Array{thread, i});
        result = Value(std::move(array)).array();
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(Value(shared), Value(numbers(size)));
    for (int thread = 0; thread < kThreads; ++thread) {
      const Array& result = results[static_cast<size_t>(thread)];
      ASSERT_EQ(result.size(), size + kAppended);
      EXPECT_EQ(result.sharedPrefix(shared), size);
      for (int i = 0; i < kAppended; ++i)
        ASSERT_EQ(result[size + static_cast<size_t>(i)], Value(Array{thread, i}));
    }
  }
}

TEST(MutableArray, RacesForTheSamePlaceAndOneCopyAlwaysGetsIt) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 130; ++round) {
    const Array shared = numbers(static_cast<size_t>(round));
    std::vector<Array> results(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([shared, thread, &result = results[static_cast<size_t>(thread)]] {
        MutableArray array(shared);
        array.append(thread);
        array.append(thread + 100);
        result = Value(std::move(array)).array();
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    const auto size = static_cast<size_t>(round);
    for (int thread = 0; thread < kThreads; ++thread) {
      ASSERT_EQ(results[static_cast<size_t>(thread)][size], Value(thread));
      ASSERT_EQ(results[static_cast<size_t>(thread)][size + 1], Value(thread + 100));
    }
  }
}

TEST(MutableArray, IsRemovedFromAndAppendedToByManyThreadsThatHoldCopiesOfOneArray) {
  constexpr size_t kThreads = 4;
  constexpr size_t kRounds = 150;
  const Array shared = without(numbers(400), 100);
  std::vector<Array> results(kThreads);
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([shared, thread, &result = results[thread]] {
      MutableArray array(shared);
      for (size_t i = 0; i < kRounds; ++i) {
        array.removeAt(thread);
        array.append(Array{static_cast<int64_t>(thread)});
        array.append(static_cast<int64_t>(i));
      }
      result = Value(std::move(array)).array();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(Value(shared), Value(without(numbers(400), 100)));
  for (size_t thread = 0; thread < kThreads; ++thread) {
    const Array& result = results[thread];
    ASSERT_EQ(result.size(), shared.size() + kRounds);
    for (size_t i = 0; i < thread; ++i)
      ASSERT_EQ(result[i], shared[i]);
    for (size_t i = thread; i + kRounds < shared.size(); ++i)
      ASSERT_EQ(result[i], shared[i + kRounds]);
    for (size_t i = 0; i < kRounds; ++i) {
      ASSERT_EQ(result[shared.size() - kRounds + 2 * i], Value(Array{static_cast<int64_t>(thread)}));
      ASSERT_EQ(result[shared.size() - kRounds + 2 * i + 1], Value(static_cast<int64_t>(i)));
    }
  }
}

}  // namespace
}  // namespace morvik::test
