#include "morvik/params.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "host/json/simdjson_codec.h"
#include "kit/value.h"
#include "morvik/morvik.h"
#include "services/json_writer.h"

namespace morvik {
namespace {

kit::Value read(const std::string& text) {
  auto result = host::SimdjsonCodec().read(text);
  if (const auto* error = std::get_if<kit::Error>(&result)) {
    ADD_FAILURE() << error->message << " in " << text.substr(0, 200);
    return {};
  }
  return std::get<kit::Value>(std::move(result));
}

/// What addActivity() makes of its argument.
std::string passed(std::optional<std::string_view> param) {
  return param ? std::string(*param) : "(none)";
}

TEST(Params, AreAnEmptyObjectAtFirst) {
  EXPECT_EQ(Params().text(), "{}");
  EXPECT_FALSE(Params().isTooLarge());
}

TEST(Params, KeepTheOrderInWhichNamesCame) {
  EXPECT_EQ(Params().set("price", 9.99).set("currency", "EUR").set("amount", 2).text(),
            R"({"price":9.99,"currency":"EUR","amount":2})");
}

TEST(Params, TakeNumbersOfEveryWidthForWhatTheyAre) {
  EXPECT_EQ(Params().set("n", 5).set("l", -5L).set("ll", 5LL).text(), R"({"n":5,"l":-5,"ll":5})");
  EXPECT_EQ(Params().set("u", 5U).set("ul", 5UL).set("ull", 5ULL).text(), R"({"u":5,"ul":5,"ull":5})");
  EXPECT_EQ(Params().set("n", int8_t{-8}).set("u", uint8_t{200}).set("s", short{-3}).text(),
            R"({"n":-8,"u":200,"s":-3})");
  EXPECT_EQ(
      Params().set("n", std::numeric_limits<int64_t>::min()).set("u", std::numeric_limits<uint64_t>::max()).text(),
      R"({"n":-9223372036854775808,"u":18446744073709551615})");
  EXPECT_EQ(Params().set("size", sizeof(int)).set("zero", 0).text(), R"({"size":4,"zero":0})");
}

TEST(Params, WriteAFloatWithItsOwnDigits) {
  EXPECT_EQ(Params().set("f", 9.99F).set("d", 0.1).set("l", 2.5L).text(), R"({"f":9.99,"d":0.1,"l":2.5})");
}

TEST(Params, MakeNullOfNumbersThatAreNotFinite) {
  using Double = std::numeric_limits<double>;
  using Float = std::numeric_limits<float>;
  EXPECT_EQ(Params().set("a", Double::quiet_NaN()).set("b", Double::infinity()).set("c", -Double::infinity()).text(),
            R"({"a":null,"b":null,"c":null})");
  EXPECT_EQ(Params().set("a", Float::quiet_NaN()).set("b", -Float::infinity()).text(), R"({"a":null,"b":null})");
  EXPECT_EQ(Params().set("l", std::numeric_limits<long double>::max()).text(), R"({"l":null})");
}

TEST(Params, TakeTextInEveryForm) {
  const std::string text = "EUR";
  const std::string_view view = text;
  char array[] = "EUR";
  EXPECT_EQ(Params().set("a", text).set("b", view).set("c", array).set("d", "EUR").set("e", std::string("EUR")).text(),
            R"({"a":"EUR","b":"EUR","c":"EUR","d":"EUR","e":"EUR"})");
}

TEST(Params, TakeTruthAndNullAndNullPointersToText) {
  const char* nothing = nullptr;
  EXPECT_EQ(Params().set("a", true).set("b", false).set("c", nullptr).set("d", nothing).text(),
            R"({"a":true,"b":false,"c":null,"d":null})");
}

TEST(Params, TakeNothingThatWouldMeanSomethingElse) {
  static_assert(!std::is_convertible_v<char, ParamValue>);
  static_assert(!std::is_convertible_v<char32_t, ParamValue>);
  static_assert(!std::is_convertible_v<int*, ParamValue>);
  static_assert(!std::is_convertible_v<void (*)(), ParamValue>);
  static_assert(std::is_convertible_v<bool, ParamValue>);
}

TEST(Params, EscapeWhatJsonEscapes) {
  EXPECT_EQ(Params().set("a \"name\"\n", "tab\t back\\slash \x01").text(),
            R"({"a \"name\"\n":"tab\t back\\slash \u0001"})");
  EXPECT_EQ(Params().set("", std::string_view("a\0b", 3)).text(), R"({"":"a\u0000b"})");
}

TEST(Params, RepairWhatIsNotUtf8AlsoInNames) {
  EXPECT_EQ(Params().set("n\xFF", "v\xC3").text(), "{\"n\xEF\xBF\xBD\":\"v\xEF\xBF\xBD\"}");
}

TEST(Params, LetTheLastValueOfANameStandInTheFirstPlace) {
  EXPECT_EQ(Params().set("a", 1).set("b", 2).set("a", "three").text(), R"({"a":"three","b":2})");
}

TEST(Params, TakeNamesThatAreRepairedToTheSameForOne) {
  EXPECT_EQ(Params().set("\xFE", 1).set("\xFF", 2).text(), "{\"\xEF\xBF\xBD\":2}");
}

TEST(Params, NestObjectsAndLists) {
  const ParamList tags = ParamList().add("new").add(7).add(nullptr).add(false).add(1.5).add(Params().set("deep", 1));
  EXPECT_EQ(Params().set("item", Params().set("sku", "42")).set("tags", tags).set("none", ParamList()).text(),
            R"({"item":{"sku":"42"},"tags":["new",7,null,false,1.5,{"deep":1}],"none":[]})");
  EXPECT_EQ(Params().set("grid", ParamList().add(ParamList().add(1)).add(ParamList())).text(), R"({"grid":[[1],[]]})");
}

TEST(Params, MayBePutIntoThemselves) {
  Params params;
  params.set("a", 1);
  params.set("self", params);
  EXPECT_EQ(params.text(), R"({"a":1,"self":{"a":1}})");
}

TEST(Params, AreValuesWhoseCopiesAreTheirOwn) {
  Params one;
  one.set("a", 1);
  Params other = one;
  other.set("a", 2);
  EXPECT_EQ(one.text(), R"({"a":1})");
  EXPECT_EQ(other.text(), R"({"a":2})");
  one = other;
  other.set("b", 3);
  EXPECT_EQ(one.text(), R"({"a":2})");
  const Params moved = std::move(other);
  EXPECT_EQ(moved.text(), R"({"a":2,"b":3})");
  EXPECT_EQ(other.text(), "{}");  // NOLINT(bugprone-use-after-move): a promise of the header
  EXPECT_EQ(other.set("c", 4).text(), R"({"c":4})");
}

TEST(Params, StandWhereTheParameterOfAnEventDoes) {
  EXPECT_EQ(passed(Params().set("price", 9.99)), R"({"price":9.99})");
  EXPECT_EQ(passed(Params().set("price", 9.99).text()), R"({"price":9.99})");
  Params params;
  EXPECT_EQ(passed(params), "{}");
  params.set("a", 1);
  EXPECT_EQ(passed(params), R"({"a":1})");
}

// Length of {"t":"…"} without the text.
constexpr size_t kFrameBytes = 8;

TEST(Params, MayHaveOneMebibyteOfText) {
  Params params;
  params.set("t", std::string(kMaxParamsBytes - kFrameBytes, 'x'));
  EXPECT_FALSE(params.isTooLarge());
  EXPECT_EQ(params.text().size(), kMaxParamsBytes);
}

TEST(Params, AreTooLargeWithOneByteMore) {
  Params params;
  params.set("t", std::string(kMaxParamsBytes - kFrameBytes + 1, 'x'));
  EXPECT_TRUE(params.isTooLarge());
  EXPECT_EQ(params.text(), "");
}

TEST(Params, CountTheTextAsItIsWritten) {
  // Six bytes each.
  EXPECT_FALSE(Params().set("t", std::string((kMaxParamsBytes - kFrameBytes) / 6, '\x01')).isTooLarge());
  EXPECT_TRUE(Params().set("t", std::string((kMaxParamsBytes - kFrameBytes) / 6 + 1, '\x01')).isTooLarge());
  EXPECT_TRUE(Params().set("t", std::string(kMaxParamsBytes + 1, 'x')).isTooLarge());
  EXPECT_TRUE(Params().set(std::string(kMaxParamsBytes + 1, 'x'), 1).isTooLarge());
}

TEST(Params, CountAReplacedValueNoMore) {
  Params params;
  for (int round = 0; round < 5; ++round)
    params.set("t", std::string(kMaxParamsBytes - kFrameBytes, 'x'));
  EXPECT_FALSE(params.isTooLarge());
  params.set("t", 1);
  EXPECT_EQ(params.set("u", 2).text(), R"({"t":1,"u":2})");
}

TEST(Params, StayTooLargeAndHoldNothing) {
  Params params;
  params.set("t", std::string(kMaxParamsBytes, 'x')).set("t", 1).set("u", 2);
  EXPECT_TRUE(params.isTooLarge());
  EXPECT_EQ(params.text(), "");
  EXPECT_TRUE(Params(params).isTooLarge());
}

TEST(Params, AreTooLargeWithAPartThatIs) {
  const Params large = Params().set("t", std::string(kMaxParamsBytes, 'x'));
  const ParamList list = ParamList().add(std::string(kMaxParamsBytes, 'x'));
  EXPECT_TRUE(Params().set("part", large).isTooLarge());
  EXPECT_TRUE(Params().set("part", list).isTooLarge());
  EXPECT_TRUE(Params().set("part", ParamList().add(large)).isTooLarge());
}

TEST(Params, ThatAreTooLargeAreTooLongForAnEvent) {
  const Params large = Params().set("t", std::string(kMaxParamsBytes, 'x'));
  EXPECT_GT(passed(large).size(), kMaxEventBytes);
}

Params nested(size_t depth) {
  Params params;
  for (size_t level = 1; level < depth; ++level)
    params = Params().set("p", params);
  return params;
}

TEST(Params, NestAsDeepAsTheKitReads) {
  const Params deep = nested(kMaxParamsDepth);
  EXPECT_FALSE(deep.isTooLarge());
  EXPECT_TRUE(read(deep.text()).isDictionary());
}

TEST(Params, AreTooLargeWhenTheyNestOneLevelDeeper) {
  EXPECT_TRUE(nested(kMaxParamsDepth + 1).isTooLarge());
  EXPECT_EQ(nested(kMaxParamsDepth + 1).text(), "");
  EXPECT_TRUE(Params().set("list", ParamList().add(nested(kMaxParamsDepth - 1))).isTooLarge());
  EXPECT_FALSE(Params().set("list", ParamList().add(nested(kMaxParamsDepth - 2))).isTooLarge());
}

TEST(Params, TakeEightyThousandNamesWithoutLookingThroughThemAll) {
  Params params;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 80'000; ++i)
      params.set(std::to_string(i), round);
  }
  ASSERT_FALSE(params.isTooLarge());
  const kit::Value value = read(params.text());
  EXPECT_EQ(value.size(), 80'000U);
  EXPECT_EQ(value.dictionary().begin()[79'999].value, kit::Value(1));
}

/// Random params, and what a reader must find in their text.
class Chance {
 public:
  explicit Chance(uint32_t seed) : random_(seed) {}

  std::pair<Params, kit::Value> object(int levels) {
    Params params;
    kit::MutableDictionary expected;
    for (size_t left = below(6); left > 0; --left) {
      const std::string name = bytes();
      put(levels, [&](const ParamValue& value, const kit::Value& model) {
        params.set(name, value);
        expected.set(repaired(name), model);
      });
    }
    return {params, kit::Value(std::move(expected))};
  }

 private:
  std::pair<ParamList, kit::Value> list(int levels) {
    ParamList params;
    kit::MutableArray expected;
    for (size_t left = below(6); left > 0; --left) {
      put(levels, [&](const ParamValue& value, const kit::Value& model) {
        params.add(value);
        expected.append(model);
      });
    }
    return {params, kit::Value(std::move(expected))};
  }

  template <class Take>
  void put(int levels, Take take) {
    switch (below(levels > 0 ? 8 : 6)) {
      case 0:
        return take(nullptr, kit::Value::null());
      case 1:
        return take(true, true);
      case 2: {
        const auto number = static_cast<int64_t>(bits());
        return take(number, number);
      }
      case 3: {
        const uint64_t number = bits();
        return take(number, number);
      }
      case 4: {
        const double number = std::bit_cast<double>(bits());
        return take(number, std::isfinite(number) ? kit::Value(number) : kit::Value::null());
      }
      case 5: {
        const std::string text = bytes();
        return take(text, kit::Value(repaired(text)));
      }
      case 6: {
        const auto [params, expected] = object(levels - 1);
        return take(params, expected);
      }
      default: {
        const auto [params, expected] = list(levels - 1);
        return take(params, expected);
      }
    }
  }

  size_t below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(random_); }
  uint64_t bits() { return (uint64_t{random_()} << 32) | random_(); }
  std::string bytes() {
    std::string text;
    for (size_t left = below(12); left > 0; --left)
      text += below(2) == 0 ? static_cast<char>(below(256)) : "\"\\\xC3\xA4z"[below(5)];
    return text;
  }
  static std::string repaired(const std::string& text) {
    std::string result;
    services::appendRepairedUtf8(text, result);
    return result;
  }

  std::mt19937 random_;
};

TEST(Params, AreReadBackAsTheyWereSetWhateverIsSet) {
  for (uint32_t seed = 0; seed < 3000; ++seed) {
    const auto [params, expected] = Chance(seed).object(4);
    const std::string text = params.text();
    ASSERT_TRUE(read(text) == expected) << "seed " << seed << ": " << text;
    ASSERT_EQ(std::get<std::string>(services::writeJson(expected)), text) << "seed " << seed;
  }
}

}  // namespace
}  // namespace morvik
