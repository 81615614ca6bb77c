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

/// A longer JSON text is too large.
inline constexpr size_t kMaxParamsBytes = size_t{1} << 20;
/// How deep objects and lists may nest, including the outermost.
inline constexpr size_t kMaxParamsDepth = 512;

namespace detail {

/// Integers of every width; neither bool nor a character type.
template <class T>
concept ParamInteger = std::integral<T> && sizeof(T) <= sizeof(int64_t) && !std::same_as<T, bool> &&
                       !std::same_as<T, char> && !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
                       !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

}  // namespace detail

/// What Params::set() and ParamList::add() accept: nullptr, a bool, an integer of any width, a floating-point number,
/// text, an object or a list. A view that lives only during the call. Nothing else converts to it, so that neither a
/// pointer becomes `true` nor a character a number.
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

/// The implementation of both; copies are independent.
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
  mutable std::unique_ptr<Content> content_;  ///< created when first needed
};

}  // namespace detail

/// Builds the JSON text of an object, for an activity's parameter:
///
///   core->addActivity("shop", "purchase", morvik::Params().set("price", 9.99).set("currency", "EUR"));
///
/// Names keep their order of insertion; setting a name again replaces its value in place. A float is written with its
/// own digits (0.1f is 0.1); NaN and infinity become null. Bytes that are not UTF-8 become U+FFFD, in names too. An
/// object that grows over kMaxParamsBytes or nests deeper than kMaxParamsDepth is too large from then on: it drops its
/// content and accepts nothing more. A plain value, for one thread at a time; a moved-from object is empty. Throws only
/// if memory runs out.
class Params {
 public:
  Params& set(std::string_view name, ParamValue value) {
    tree_.set(name, value);
    return *this;
  }

  bool isTooLarge() const { return tree_.isTooLarge(); }
  /// Compact JSON; "{}" if nothing was set, "" if it is too large.
  std::string text() const { return tree_.text(); }
  /// The same for functions that take text, such as addActivity(): valid until the next set() and as long as this
  /// object lives. An object that is too large converts to a text too long for an event, so that the event is refused
  /// instead of recorded without its parameter.
  operator std::string_view() const { return tree_.keptText(); }  // NOLINT

 private:
  friend class detail::ParamTree;
  detail::ParamTree tree_;
};

/// A list within Params: the same values, in order. It can become too large like Params, and then so does whatever it
/// is put into.
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
