#include "morvik/params.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kit/json_codec.h"
#include "kit/value.h"
#include "services/json_writer.h"

namespace morvik::detail {
namespace {

static_assert(kMaxParamsDepth == kit::kMaxJsonDepth, "what is built here can be written and read");

std::string written(const kit::Value& value) {
  std::string text;
  // Cannot fail: dates and non-finite numbers are never held, and the depth is bounded.
  services::appendJson(value, text);
  return text;
}

std::string repaired(std::string_view text) {
  std::string result;
  services::appendRepairedUtf8(text, result);
  return result;
}

kit::Value numberOrNull(double number) {
  return std::isfinite(number) ? kit::Value(number) : kit::Value::null();
}

/// The double with the same decimal digits as the float.
double withSameDigits(float number) {
  constexpr size_t kMostDigits = 32;
  char digits[kMostDigits];
  double same = 0;
  std::from_chars(digits, std::to_chars(digits, digits + kMostDigits, number).ptr, same);
  return same;
}

}  // namespace

/// A value, with what must be known before the whole is written.
struct ParamTree::Held {
  kit::Value value;
  size_t bytes = 0;  ///< of its text
  size_t depth = 0;  ///< levels of containers

  /// Nothing if it is too large by itself.
  static std::optional<Held> of(const ParamValue& value) {
    return std::visit([](const auto& each) { return of(each); }, value.value_);
  }

 private:
  static Held ofScalar(const kit::Value& value) { return {value, written(value).size(), 0}; }
  static std::optional<Held> of(std::nullptr_t) { return ofScalar(kit::Value::null()); }
  template <class Plain>
  static std::optional<Held> of(Plain value) {
    return ofScalar(kit::Value(value));
  }
  static std::optional<Held> of(double value) { return ofScalar(numberOrNull(value)); }
  static std::optional<Held> of(float value) { return ofScalar(numberOrNull(withSameDigits(value))); }
  static std::optional<Held> of(std::string_view text) {
    if (text.size() > kMaxParamsBytes)
      return std::nullopt;
    return ofScalar(kit::Value(text));
  }
  static std::optional<Held> of(const Params* object);
  static std::optional<Held> of(const ParamList* list);
};

struct ParamTree::Content {
  struct Member {
    std::string name;  ///< of an object's member, as valid UTF-8
    Held held;
  };

  std::vector<Member> members;
  std::unordered_map<std::string, size_t> places;  ///< index of each member of an object, by name
  size_t member_bytes = 0;                         ///< including a comma each
  bool is_too_large = false;
  std::string kept_text;

  void set(std::string_view name, const ParamValue& value) {
    if (name.size() > kMaxParamsBytes)
      return letGo();
    std::string repaired_name = repaired(name);
    const size_t name_bytes = written(kit::Value(repaired_name)).size() + 1;
    put(Held::of(value), name_bytes, [&](Held held) {
      const auto [place, is_new] = places.try_emplace(repaired_name, members.size());
      if (is_new)
        members.push_back({std::move(repaired_name), {}});
      else
        member_bytes -= members[place->second].held.bytes + 1;
      members[place->second].held = std::move(held);
    });
  }

  void add(const ParamValue& value) {
    put(Held::of(value), 0, [&](Held held) { members.push_back({"", std::move(held)}); });
  }

  /// Length of the text.
  size_t bytes() const { return members.empty() ? 2 : 1 + member_bytes; }

  kit::Value object() const {
    std::vector<kit::Entry> entries;
    entries.reserve(members.size());
    for (const Member& member : members)
      entries.push_back({member.name, member.held.value});
    return kit::Dictionary::fromEntries(entries);
  }

  kit::Value list() const {
    kit::MutableArray array;
    for (const Member& member : members)
      array.append(member.held.value);
    return kit::Value(std::move(array));
  }

  std::optional<Held> heldAs(const kit::Value& whole) const {
    if (is_too_large)
      return std::nullopt;
    size_t depth = 0;
    for (const Member& member : members)
      depth = std::max(depth, member.held.depth);
    return Held{whole, bytes(), depth + 1};
  }

 private:
  /// Adds a value through `take`; `more_bytes` come with it.
  template <class Take>
  void put(std::optional<Held> held, size_t more_bytes, Take take) {
    if (is_too_large)
      return;
    if (!held || held->depth >= kMaxParamsDepth)
      return letGo();
    kept_text.clear();
    held->bytes += more_bytes;
    member_bytes += held->bytes + 1;
    take(*std::move(held));
    if (bytes() > kMaxParamsBytes)
      letGo();
  }

  void letGo() {
    *this = Content();
    is_too_large = true;
  }
};

std::optional<ParamTree::Held> ParamTree::Held::of(const Params* object) {
  const Content& content = object->tree_.content();
  return content.heldAs(content.object());
}

std::optional<ParamTree::Held> ParamTree::Held::of(const ParamList* list) {
  const Content& content = list->tree_.content();
  return content.heldAs(content.list());
}

ParamTree::ParamTree() noexcept = default;
ParamTree::~ParamTree() = default;
ParamTree::ParamTree(ParamTree&& other) noexcept = default;
ParamTree& ParamTree::operator=(ParamTree&& other) noexcept = default;

ParamTree::ParamTree(const ParamTree& other) : content_(std::make_unique<Content>(other.content())) {}

ParamTree& ParamTree::operator=(const ParamTree& other) {
  ParamTree copy(other);
  content_.swap(copy.content_);
  return *this;
}

ParamTree::Content& ParamTree::content() const {
  if (!content_)
    content_ = std::make_unique<Content>();
  return *content_;
}

void ParamTree::set(std::string_view name, const ParamValue& value) {
  content().set(name, value);
}

void ParamTree::add(const ParamValue& value) {
  content().add(value);
}

bool ParamTree::isTooLarge() const {
  return content().is_too_large;
}

std::string ParamTree::text() const {
  return isTooLarge() ? "" : written(content().object());
}

std::string_view ParamTree::keptText() const {
  std::string& kept = content().kept_text;
  if (kept.empty())
    kept = isTooLarge() ? std::string(kMaxParamsBytes + 1, ' ') : text();
  return kept;
}

}  // namespace morvik::detail
