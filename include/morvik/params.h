// Structured parameters for MorvikCore::addActivity().
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace morvik {

class Params;
class ParamList;
namespace detail {
class ParamTree;
}

/// A longer text is too large.
inline constexpr size_t kMaxParamsBytes = size_t{1} << 20;
/// Objects and lists may nest so deep, the outermost counted.
inline constexpr size_t kMaxParamsDepth = 512;

namespace detail {

/// Whole numbers of every width; neither bool nor a character.
template <class T>
concept ParamInteger = std::integral<T> && sizeof(T) <= sizeof(int64_t) && !std::same_as<T, bool> &&
                       !std::same_as<T, char> && !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
                       !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

}  // namespace detail

/// What Params::set() and ParamList::add() take: nullptr, a bool, a whole number of any width, a floating-point number,
/// text, an object or a list. A view, made in the call and gone after it; nothing else converts to it, so that neither
/// a pointer becomes `true` nor a character a number.
class ParamValue {
 public:
  ParamValue(std::nullptr_t) : value_(nullptr) {}  // NOLINT(google-explicit-constructor): of all below, too
  template <std::same_as<bool> Boolean>
  ParamValue(Boolean value) : value_(value) {}  // NOLINT
  template <detail::ParamInteger Integer>
  ParamValue(Integer value)  // NOLINT
      : value_(static_cast<std::conditional_t<std::is_signed_v<Integer>, int64_t, uint64_t>>(value)) {}
  ParamValue(float value) : value_(value) {}                                   // NOLINT
  ParamValue(double value) : value_(value) {}                                  // NOLINT
  ParamValue(long double value) : value_(static_cast<double>(value)) {}        // NOLINT
  ParamValue(std::string_view text) : value_(text) {}                          // NOLINT
  ParamValue(const std::string& text) : ParamValue(std::string_view(text)) {}  // NOLINT
  /// Null for a null pointer.
  ParamValue(const char* text) : value_(nullptr) {  // NOLINT
    if (text != nullptr)
      value_ = std::string_view(text);
  }
  ParamValue(const Params& object) : value_(&object) {}  // NOLINT
  ParamValue(const ParamList& list) : value_(&list) {}   // NOLINT

 private:
  friend class detail::ParamTree;
  using Alternatives = std::variant<std::nullptr_t, bool, int64_t, uint64_t, float, double, std::string_view,
                                    const Params*, const ParamList*>;
  Alternatives value_;
};

namespace detail {

/// What stands behind both; a copy is its own.
class ParamTree {
 public:
  ParamTree() noexcept;
  ~ParamTree();
  ParamTree(const ParamTree& other);
  ParamTree& operator=(const ParamTree& other);
  ParamTree(ParamTree&& other) noexcept;
  ParamTree& operator=(ParamTree&& other) noexcept;

  void set(std::string_view name, const ParamValue& value);
  void add(const ParamValue& value);
  bool isTooLarge() const;
  std::string text() const;
  std::string_view keptText() const;

 private:
  struct Held;
  struct Content;
  Content& content() const;
  mutable std::unique_ptr<Content> content_;  ///< made when it is needed first
};

}  // namespace detail

/// Builds the JSON text of an object, for an activity's parameter:
///
///   core->addActivity("shop", "purchase", morvik::Params().set("price", 9.99).set("currency", "EUR"));
///
/// Names keep the order in which they came; of a repeated name the last value stands, in its first place. A float is
/// written with its own digits (0.1f is 0.1); NaN and infinity become null. Bytes that are not UTF-8 become U+FFFD, in
/// names too. What grows over kMaxParamsBytes or nests deeper than kMaxParamsDepth is too large from then on: it lets
/// go of what it holds and takes nothing more. A plain value, for one thread at a time; what was moved from is empty.
/// Nothing here throws but for want of memory.
class Params {
 public:
  Params& set(std::string_view name, ParamValue value) {
    tree_.set(name, value);
    return *this;
  }

  bool isTooLarge() const { return tree_.isTooLarge(); }
  /// Compact JSON; "{}" when nothing was set, "" when it is too large.
  std::string text() const { return tree_.text(); }
  /// The same where a text is taken, such as addActivity(): valid until the next set() and as long as this object
  /// lives. What is too large stands for a text that is too long for an event, so that the event is refused and not
  /// recorded without its parameter.
  operator std::string_view() const { return tree_.keptText(); }  // NOLINT

 private:
  friend class detail::ParamTree;
  detail::ParamTree tree_;
};

/// A list within Params: the same values, in order. Too large as Params are, and then so is what it is put into.
class ParamList {
 public:
  ParamList& add(ParamValue value) {
    tree_.add(value);
    return *this;
  }

 private:
  friend class detail::ParamTree;
  detail::ParamTree tree_;
};

}  // namespace morvik
