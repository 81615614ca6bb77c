#include "host/json/simdjson_codec.h"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "services/json_writer.h"

namespace morvik::host {

using kit::Error;
using kit::Value;

namespace {

namespace ondemand = simdjson::ondemand;

/// From this many entries on, repeated keys are found with a table: with pairwise comparison, one answer with many
/// short keys could block the main thread for minutes.
constexpr size_t kKeysComparedDirectly = 16;

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

/// The first byte that is not part of well-formed UTF-8. `text` has one.
size_t firstBadByte(std::string_view text) {
  size_t position = 0;
  while (position < text.size()) {
    const auto lead = static_cast<unsigned char>(text[position]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    const std::string_view character = text.substr(position, length);
    if (!simdjson::validate_utf8(character.data(), character.size()))
      break;
    position += length;
  }
  return position;
}

/// Keeps the last value of each key, at the position of its first occurrence.
class EntryList {
 public:
  void set(std::string_view key, Value value) {
    if (Value* earlier = find(key)) {
      *earlier = std::move(value);
      return;
    }
    entries_.push_back({Value(key), std::move(value)});
    if (!places_.empty() || entries_.size() > kKeysComparedDirectly)
      remember();
  }
  Value take() { return kit::Dictionary::fromEntries(entries_); }

 private:
  Value* find(std::string_view key) {
    if (!places_.empty()) {
      const auto found = places_.find(key);
      return found == places_.end() ? nullptr : &entries_[found->second].value;
    }
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [key](const kit::Entry& e) { return e.key.string() == key; });
    return found == entries_.end() ? nullptr : &found->value;
  }
  /// The views point into the keys' shared bytes, which do not move when the list grows.
  void remember() {
    for (size_t place = places_.size(); place < entries_.size(); ++place)
      places_.emplace(entries_[place].key.string(), place);
  }

  std::vector<kit::Entry> entries_;
  std::unordered_map<std::string_view, size_t> places_;
};

/// Reads one document in one pass. Each step returns whether to continue; the first error is kept.
///
/// The document is read as the only element of an array of ours: the parser treats a number or text at the root
/// differently from one in a container, and refuses there what it accepts here.
class Reading {
 public:
  explicit Reading(std::string_view text) : text_(text), wrapped_(wrap(text)) {}

  std::variant<Value, Error> run() {
    Value value;
    if (!wholeDocument(value))
      return std::move(failure_);
    return value;
  }

 private:
  static simdjson::padded_string wrap(std::string_view text) {
    simdjson::padded_string wrapped(text.size() + 2);
    wrapped.data()[0] = '[';
    std::copy(text.begin(), text.end(), wrapped.data() + 1);
    wrapped.data()[text.size() + 1] = ']';
    return wrapped;
  }

  bool wholeDocument(Value& out) {
    ondemand::array only;
    if (const auto error = parser_.iterate(wrapped_).get(document_))
      return failAt(error == simdjson::UTF8_ERROR ? firstBadByte(text_) : text_.size(), simdjson::error_message(error));
    if (const auto error = document_.get_array().get(only))
      return fail(error);
    size_t count = 0;
    for (auto element : only) {
      if (const auto error = element.error())
        return count == 0 ? fail(error) : failAfterDocument();
      if (++count > 1)
        return failAfterDocument();
      ondemand::value node = element.value_unsafe();
      if (!any(node, 0, out))
        return false;
    }
    if (document_.current_location().error() != simdjson::OUT_OF_BOUNDS)
      return fail(kTextFollows);
    return count == 1 || failAt(0, "the text is empty");
  }

  bool any(ondemand::value& node, size_t depth, Value& out) {
    ondemand::json_type type{};
    if (const auto error = node.type().get(type))
      return fail(error);
    switch (type) {
      case ondemand::json_type::array:
        return depth < kit::kMaxJsonDepth ? array(node, depth + 1, out) : tooDeep();
      case ondemand::json_type::object:
        return depth < kit::kMaxJsonDepth ? object(node, depth + 1, out) : tooDeep();
      case ondemand::json_type::string:
        return string(node, out);
      case ondemand::json_type::number:
        return number(node, out);
      case ondemand::json_type::boolean:
        return boolean(node, out);
      case ondemand::json_type::null:
        break;
    }
    bool is_null = false;
    if (const auto error = node.is_null().get(is_null); error || !is_null)
      return fail("no value begins like this");
    out = Value::null();
    return true;
  }

  bool array(ondemand::value& node, size_t depth, Value& out) {
    ondemand::array elements;
    if (const auto error = node.get_array().get(elements))
      return fail(error);
    kit::MutableArray values;
    for (auto element : elements) {
      if (const auto error = element.error())
        return fail(error);
      if (++items_ > kMaxJsonItems)
        return tooMany();
      ondemand::value child = element.value_unsafe();
      Value value;
      if (!any(child, depth, value))
        return false;
      values.append(std::move(value));
    }
    out = Value(std::move(values));
    return true;
  }

  bool object(ondemand::value& node, size_t depth, Value& out) {
    ondemand::object fields;
    if (const auto error = node.get_object().get(fields))
      return fail(error);
    EntryList entries;
    for (auto entry : fields) {
      if (++items_ > kMaxJsonItems)
        return tooMany();
      ondemand::field field;
      if (const auto error = std::move(entry).get(field))
        return fail(error);
      std::string_view key;
      if (const auto error = field.unescaped_key().get(key))
        return fail(error);
      Value value;
      if (!any(field.value(), depth, value))
        return false;
      entries.set(key, std::move(value));
    }
    out = entries.take();
    return true;
  }

  bool string(ondemand::value& node, Value& out) {
    std::string_view text;
    if (const auto error = node.get_string().get(text))
      return fail(error);
    out = Value(text);
    return true;
  }

  bool boolean(ondemand::value& node, Value& out) {
    bool truth = false;
    if (const auto error = node.get_bool().get(truth))
      return fail(error);
    out = Value(truth);
    return true;
  }

  bool number(ondemand::value& node, Value& out) {
    const std::string_view raw = node.raw_json_token();
    ondemand::number number;
    if (const auto error = node.get_number().get(number))
      return wideInteger(raw, out) || fail(error);
    switch (number.get_number_type()) {
      case ondemand::number_type::signed_integer:
        out = Value(number.get_int64());
        break;
      case ondemand::number_type::unsigned_integer:
        out = Value(number.get_uint64());
        break;
      case ondemand::number_type::floating_point_number:
        out = Value(number.get_double());
        break;
    }
    return true;
  }

  /// An integer too large for 64 bits: the parser refuses it, the kit takes the nearest double.
  static bool wideInteger(std::string_view raw, Value& out) {
    while (!raw.empty() && isBlank(raw.back()))
      raw.remove_suffix(1);
    std::string_view digits = raw;
    if (!digits.empty() && digits.front() == '-')
      digits.remove_prefix(1);
    const bool is_integer = !digits.empty() && digits.front() != '0' &&
                            std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
    double nearest = 0;
    if (!is_integer || std::from_chars(raw.data(), raw.data() + raw.size(), nearest).ec != std::errc())
      return false;
    out = Value(nearest);
    return true;
  }

  bool tooMany() { return fail("there are more than " + std::to_string(kMaxJsonItems) + " members and elements"); }
  bool tooDeep() { return fail("containers are nested deeper than " + std::to_string(kit::kMaxJsonDepth)); }
  /// The bracket that should end our own array belonged to the document, or something precedes it.
  bool failAfterDocument() {
    return position() < text_.size() ? fail(kTextFollows) : fail("a container is not closed");
  }
  bool fail(simdjson::error_code error) { return fail(simdjson::error_message(error)); }
  bool fail(const std::string& what) { return failAt(position(), what); }
  bool failAt(size_t position, const std::string& what) {
    failure_ = Error{"this is not JSON: " + what + " (at byte " + std::to_string(std::min(position, text_.size())) +
                     " of " + std::to_string(text_.size()) + ")"};
    return false;
  }
  /// The parser's position in the text.
  size_t position() {
    const char* location = nullptr;
    const bool is_known = !document_.current_location().get(location) && location > wrapped_.data();
    return is_known ? static_cast<size_t>(location - wrapped_.data() - 1) : text_.size();
  }

  static constexpr const char* kTextFollows = "text follows the end of the document";

  std::string_view text_;
  simdjson::padded_string wrapped_;
  ondemand::parser parser_;
  ondemand::document document_;
  size_t items_ = 0;
  Error failure_;
};

}  // namespace

std::variant<Value, Error> SimdjsonCodec::read(std::string_view text) const {
  return Reading(text).run();
}

std::variant<std::string, Error> SimdjsonCodec::write(const Value& value) const {
  return services::writeJson(value);
}

std::variant<std::string, Error> SimdjsonCodec::writePretty(const Value& value) const {
  return services::writePrettyJson(value);
}

}  // namespace morvik::host
