// Structured parameters for MorvikCore::addActivity().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace morvik {

/// A longer text is refused, as the event would be: text() answers "".
inline constexpr size_t kMaxParamsBytes = size_t{1} << 20;

class ParamList;

/// Builds the JSON text of an object, for an activity's parameter:
///
///   core->addActivity("shop", "purchase", morvik::Params().set("price", 9.99).set("currency", "EUR").text());
///
/// Names keep the order in which they came; of a repeated name the last value stands, in its first place. NaN and
/// infinity become null. Bytes that are not UTF-8 become U+FFFD. A plain value, for one thread at a time; a copy is its
/// own. Nothing here throws but for want of memory.
class Params {
 public:
  Params();
  ~Params();
  Params(const Params& other);
  Params& operator=(const Params& other);
  Params(Params&& other) noexcept;
  Params& operator=(Params&& other) noexcept;

  Params& set(std::string_view name, bool value);
  Params& set(std::string_view name, int value) { return set(name, static_cast<int64_t>(value)); }
  Params& set(std::string_view name, int64_t value);
  Params& set(std::string_view name, double value);
  Params& set(std::string_view name, std::string_view value);
  Params& set(std::string_view name, const char* value) { return set(name, std::string_view(value)); }
  Params& set(std::string_view name, const std::string& value) { return set(name, std::string_view(value)); }
  Params& set(std::string_view name, const Params& object);
  Params& set(std::string_view name, const ParamList& list);
  Params& setNull(std::string_view name);

  /// True when text() has more than kMaxParamsBytes or is nested deeper than the kit's JSON goes.
  bool isTooLarge() const;
  /// Compact JSON; "{}" when nothing was set, "" when it is too large.
  std::string text() const;
  operator std::string() const { return text(); }  // NOLINT: stands where a parameter's text does

 private:
  friend class ParamList;
  struct Content;
  std::unique_ptr<Content> content_;
};

/// A list within Params: the same values, in order.
class ParamList {
 public:
  ParamList();
  ~ParamList();
  ParamList(const ParamList& other);
  ParamList& operator=(const ParamList& other);
  ParamList(ParamList&& other) noexcept;
  ParamList& operator=(ParamList&& other) noexcept;

  ParamList& add(bool value);
  ParamList& add(int value) { return add(static_cast<int64_t>(value)); }
  ParamList& add(int64_t value);
  ParamList& add(double value);
  ParamList& add(std::string_view value);
  ParamList& add(const char* value) { return add(std::string_view(value)); }
  ParamList& add(const std::string& value) { return add(std::string_view(value)); }
  ParamList& add(const Params& object);
  ParamList& add(const ParamList& list);
  ParamList& addNull();

 private:
  friend class Params;
  struct Content;
  std::unique_ptr<Content> content_;
};

}  // namespace morvik
