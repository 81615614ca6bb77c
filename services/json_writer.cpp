#include "services/json_writer.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

#include "kit/json_codec.h"
#include "services/dates.h"

namespace morvik::services {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/// Length of the well-formed UTF-8 sequence at the start of `text` (which is not empty); 0 when there is none.
size_t sequenceLength(std::string_view text) {
  const auto at = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = at(0);
  if (lead < 0x80)
    return 1;
  if (lead < 0xC2 || lead > 0xF4)
    return 0;
  const size_t length = lead < 0xE0 ? 2 : (lead < 0xF0 ? 3 : 4);
  if (text.size() < length)
    return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!isContinuation(at(i)))
      return 0;
  }
  const unsigned char second = at(1);
  const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
  const bool surrogate = lead == 0xED && second > 0x9F;
  const bool beyond = lead == 0xF4 && second > 0x8F;
  return overlong || surrogate || beyond ? 0 : length;
}

/// True for a byte that stands in a JSON string as it is, without a look at its neighbours.
bool isPlain(unsigned char byte) {
  return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

/// How many leading bytes are plain; eight at a time.
size_t plainRun(const char* text, size_t size) {
  constexpr uint64_t ones = 0x0101010101010101ULL;
  constexpr uint64_t highs = 0x8080808080808080ULL;
  size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t word = 0;
    std::memcpy(&word, text + i, 8);
    const uint64_t below_blank = (word - ones * 0x20) & ~word;
    const uint64_t quote = word ^ (ones * '"');
    const uint64_t backslash = word ^ (ones * '\\');
    const uint64_t hit = below_blank | ((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) | word;
    if ((hit & highs) != 0)
      break;
  }
  while (i < size && isPlain(static_cast<unsigned char>(text[i])))
    ++i;
  return i;
}

void appendEscape(unsigned char byte, std::string& out) {
  constexpr std::string_view digits = "0123456789abcdef";
  switch (byte) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\b':
      out += "\\b";
      return;
    case '\f':
      out += "\\f";
      return;
    default:
      out += "\\u00";
      out += digits[byte >> 4];
      out += digits[byte & 15];
  }
}

void appendString(std::string_view text, std::string& out) {
  out += '"';
  while (!text.empty()) {
    const size_t run = plainRun(text.data(), text.size());
    out.append(text.data(), run);
    text.remove_prefix(run);
    if (text.empty())
      break;
    const auto byte = static_cast<unsigned char>(text.front());
    size_t length = 1;
    if (byte < 0x80) {
      appendEscape(byte, out);
    } else if ((length = sequenceLength(text)) != 0) {
      out.append(text.data(), length);
    } else {
      out += kReplacement;
      length = 1;
    }
    text.remove_prefix(length);
  }
  out += '"';
}

template <class Number>
void appendNumber(Number number, std::string& out) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  out.append(digits, static_cast<size_t>(end - digits));
}

/// What to do where JSON has no form for a value: fail, or write something for people.
enum class Strictness { kStrict, kForPeople };

class Writer {
 public:
  Writer(std::string& out, Strictness strictness) : out_(out), strictness_(strictness) {}

  bool write(const kit::Value& value, size_t depth) {
    switch (value.kind()) {
      case kit::Kind::kAbsent:
        return orForPeople("an absent value has no JSON form: leave the entry out, or use null", "null");
      case kit::Kind::kNull:
        out_ += "null";
        return true;
      case kit::Kind::kBoolean:
        out_ += value.boolean() ? "true" : "false";
        return true;
      case kit::Kind::kInteger:
        appendNumber(value.integer(), out_);
        return true;
      case kit::Kind::kUnsigned:
        appendNumber(value.unsignedInteger(), out_);
        return true;
      case kit::Kind::kDouble:
        return writeDouble(value.number());
      case kit::Kind::kString:
        appendString(value.string(), out_);
        return true;
      case kit::Kind::kDate:
        return orForPeople("a date has no JSON form: format it as text first", '"' + iso8601(value.date()) + '"');
      case kit::Kind::kArray:
        return depth < kit::kMaxJsonDepth ? writeArray(value.array(), depth + 1) : tooDeep();
      case kit::Kind::kDictionary:
        return depth < kit::kMaxJsonDepth ? writeDictionary(value.dictionary(), depth + 1) : tooDeep();
    }
    return false;
  }

  const std::string& error() const { return error_; }

 private:
  bool orForPeople(std::string_view error, std::string_view text) {
    if (strictness_ == Strictness::kForPeople) {
      out_ += text;
      return true;
    }
    error_ = error;
    return false;
  }

  bool tooDeep() { return orForPeople("containers are nested too deeply", "\"\xE2\x80\xA6\""); }

  bool writeDouble(double number) {
    if (std::isfinite(number)) {
      appendNumber(number, out_);
      return true;
    }
    const char* name = std::isnan(number) ? "\"nan\"" : (number > 0 ? "\"inf\"" : "\"-inf\"");
    return orForPeople("a number that is not finite has no JSON form", name);
  }

  bool writeArray(const kit::Array& array, size_t depth) {
    out_ += '[';
    bool first = true;
    for (const kit::Value& element : array) {
      if (!first)
        out_ += ',';
      first = false;
      if (!write(element, depth))
        return false;
    }
    out_ += ']';
    return true;
  }

  bool writeDictionary(const kit::Dictionary& dictionary, size_t depth) {
    out_ += '{';
    bool first = true;
    for (const kit::Entry& entry : dictionary) {
      if (!first)
        out_ += ',';
      first = false;
      appendString(entry.key.string(), out_);
      out_ += ':';
      if (!write(entry.value, depth))
        return false;
    }
    out_ += '}';
    return true;
  }

  std::string& out_;
  Strictness strictness_;
  std::string error_;
};

}  // namespace

std::optional<kit::Error> appendJson(const kit::Value& value, std::string& out) {
  Writer writer(out, Strictness::kStrict);
  if (writer.write(value, 0))
    return std::nullopt;
  return kit::Error{"The value cannot be written as JSON: " + writer.error() + "."};
}

std::variant<std::string, kit::Error> writeJson(const kit::Value& value) {
  std::string out;
  if (auto error = appendJson(value, out))
    return *std::move(error);
  return out;
}

void appendJsonDescription(const kit::Value& value, std::string& out) {
  Writer(out, Strictness::kForPeople).write(value, 0);
}

void appendMendedUtf8(std::string_view text, std::string& out) {
  while (!text.empty()) {
    const size_t length = sequenceLength(text);
    if (length == 0) {
      out += kReplacement;
      text.remove_prefix(1);
    } else {
      out.append(text.data(), length);
      text.remove_prefix(length);
    }
  }
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = sequenceLength(text);
    if (length == 0)
      return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace morvik::services
