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

/// Length of the well-formed UTF-8 sequence at the start of `text` (not empty); 0 if there is none.
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

/// True for a byte that a JSON string holds unchanged, whatever its neighbours are.
bool isPlain(unsigned char byte) {
  return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

/// True when one of the eight bytes of `word` is not plain.
bool hasSpecial(uint64_t word) {
  constexpr uint64_t ones = 0x0101010101010101ULL;
  constexpr uint64_t highs = 0x8080808080808080ULL;
  const uint64_t below_blank = (word - ones * 0x20) & ~word;
  const uint64_t quote = word ^ (ones * '"');
  const uint64_t backslash = word ^ (ones * '\\');
  const uint64_t hit = below_blank | ((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) | word;
  return (hit & highs) != 0;
}

/// Copies the leading plain bytes of `text` to `to`, eight at a time, and returns their number. `to` has room for all
/// of `text`.
size_t copyPlainRun(std::string_view text, char* to) {
  size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    uint64_t word = 0;
    std::memcpy(&word, text.data() + i, 8);
    if (hasSpecial(word))
      break;
    std::memcpy(to + i, &word, 8);
  }
  for (; i < text.size() && isPlain(static_cast<unsigned char>(text[i])); ++i)
    to[i] = text[i];
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

/// Buffers text before it is appended to the string, so that each of the many small pieces of a document costs a store
/// and not a call.
class TextBlock {
 public:
  explicit TextBlock(std::string& out) : out_(out) {}
  TextBlock(const TextBlock&) = delete;
  TextBlock& operator=(const TextBlock&) = delete;
  ~TextBlock() { flush(); }

  void put(char c) { *room(1) = c, ++used_; }
  void put(std::string_view text) {
    if (text.size() > kBytes) {
      flush();
      out_ += text;
      return;
    }
    std::memcpy(room(text.size()), text.data(), text.size());
    used_ += text.size();
  }
  template <class Number>
  void putNumber(Number number) {
    char* to = room(kMaxNumberBytes);
    used_ += static_cast<size_t>(std::to_chars(to, to + kMaxNumberBytes, number).ptr - to);
  }
  /// Bytes put so far.
  size_t size() const { return out_.size() + used_; }
  /// Reserves room for that many more bytes, so that a long document is not copied again and again as it grows.
  void expect(size_t bytes) { out_.reserve(out_.size() + used_ + bytes); }
  /// `text` in quotes, with escapes; each byte that is not UTF-8 becomes U+FFFD.
  void putQuoted(std::string_view text) {
    put('"');
    while (!text.empty()) {
      text.remove_prefix(putPlain(text.substr(0, kBytes)));
      if (!text.empty() && !isPlain(static_cast<unsigned char>(text.front())))
        text.remove_prefix(putSpecial(text));
    }
    put('"');
  }

 private:
  static constexpr size_t kBytes = 4096;
  static constexpr size_t kMaxNumberBytes = 32;

  char* room(size_t bytes) {
    if (kBytes - used_ < bytes)
      flush();
    return block_ + used_;
  }
  void flush() {
    out_.append(block_, used_);
    used_ = 0;
  }
  size_t putPlain(std::string_view text) {
    const size_t run = copyPlainRun(text, room(text.size()));
    used_ += run;
    return run;
  }
  /// Writes the escape of the first byte of `text`, which is not plain. Returns how many bytes that covered.
  size_t putSpecial(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte < 0x80) {
      std::string escape;
      appendEscape(byte, escape);
      put(escape);
      return 1;
    }
    const size_t length = sequenceLength(text);
    put(length == 0 ? kReplacement : text.substr(0, length));
    return length == 0 ? 1 : length;
  }

  std::string& out_;
  size_t used_ = 0;
  char block_[kBytes];
};

/// What to do where JSON has no form for a value: fail, or write something for people.
enum class Strictness { kStrict, kForPeople };

/// Everything on one line, without spaces, or each entry on its own line.
enum class Layout { kCompact, kPretty };

class Writer {
 public:
  Writer(std::string& out, Strictness strictness, Layout layout = Layout::kCompact,
         const kit::StopRequest* stop = nullptr)
      : out_(out), strictness_(strictness), layout_(layout), stop_(stop) {}

  bool write(const kit::Value& value, size_t depth) {
    if (stop_.countStep()) {
      error_ = "the kit is being stopped";
      return false;
    }
    switch (value.kind()) {
      case kit::Kind::kAbsent:
        return orForPeople("an absent value has no JSON form: leave the entry out, or use null", "null");
      case kit::Kind::kNull:
        out_.put("null");
        return true;
      case kit::Kind::kBoolean:
        out_.put(value.boolean() ? "true" : "false");
        return true;
      case kit::Kind::kInteger:
        out_.putNumber(value.integer());
        return true;
      case kit::Kind::kUnsigned:
        out_.putNumber(value.unsignedInteger());
        return true;
      case kit::Kind::kDouble:
        return writeDouble(value.number());
      case kit::Kind::kString:
        out_.putQuoted(value.string());
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
      out_.put(text);
      return true;
    }
    error_ = error;
    return false;
  }

  bool tooDeep() { return orForPeople("containers are nested too deeply", "\"\xE2\x80\xA6\""); }

  bool writeDouble(double number) {
    if (std::isfinite(number)) {
      out_.putNumber(number);
      return true;
    }
    const char* name = std::isnan(number) ? "\"nan\"" : (number > 0 ? "\"inf\"" : "\"-inf\"");
    return orForPeople("a number that is not finite has no JSON form", name);
  }

  bool writeArray(const kit::Array& array, size_t depth) {
    out_.put('[');
    const size_t start = out_.size();
    size_t i = 0;
    for (const kit::Value& element : array) {
      if (i > 0)
        out_.put(',');
      putLine(depth);
      if (i == kSampleElements)
        out_.expect((out_.size() - start) / kSampleElements * (array.size() - i) * 9 / 8);
      if (!write(element, depth))
        return false;
      ++i;
    }
    if (!array.empty())
      putLine(depth - 1);
    out_.put(']');
    return true;
  }

  bool writeDictionary(const kit::Dictionary& dictionary, size_t depth) {
    out_.put('{');
    bool first = true;
    for (const kit::Entry& entry : dictionary) {
      if (!first)
        out_.put(',');
      first = false;
      putLine(depth);
      out_.putQuoted(entry.key.string());
      if (layout_ == Layout::kPretty)
        out_.put(" : ");
      else
        out_.put(':');
      if (!write(entry.value, depth))
        return false;
    }
    if (!first)
      putLine(depth - 1);
    out_.put('}');
    return true;
  }

  /// Starts a line of that depth, if lines are asked for.
  void putLine(size_t depth) {
    if (layout_ == Layout::kCompact)
      return;
    out_.put('\n');
    for (size_t i = 0; i < depth; ++i)
      out_.put("  ");
  }

  /// After this many elements the length of a long array's text is estimated from theirs.
  static constexpr size_t kSampleElements = 64;

  TextBlock out_;
  Strictness strictness_;
  Layout layout_;
  kit::StopCheck stop_;
  std::string error_;
};

}  // namespace

namespace {

std::optional<kit::Error> appendStrictly(const kit::Value& value, Layout layout, std::string& out,
                                         const kit::StopRequest* stop = nullptr) {
  Writer writer(out, Strictness::kStrict, layout, stop);
  if (writer.write(value, 0))
    return std::nullopt;
  return kit::Error{"The value cannot be written as JSON: " + writer.error() + "."};
}

std::variant<std::string, kit::Error> writeStrictly(const kit::Value& value, Layout layout) {
  std::string out;
  if (auto error = appendStrictly(value, layout, out))
    return *std::move(error);
  return out;
}

}  // namespace

std::optional<kit::Error> appendJson(const kit::Value& value, std::string& out, const kit::StopRequest* stop) {
  return appendStrictly(value, Layout::kCompact, out, stop);
}

std::variant<std::string, kit::Error> writeJson(const kit::Value& value) {
  return writeStrictly(value, Layout::kCompact);
}

std::variant<std::string, kit::Error> writePrettyJson(const kit::Value& value) {
  return writeStrictly(value, Layout::kPretty);
}

void appendJsonDescription(const kit::Value& value, std::string& out) {
  Writer(out, Strictness::kForPeople).write(value, 0);
}

std::string jsonDescription(const kit::Value& value) {
  std::string text;
  appendJsonDescription(value, text);
  return text;
}

void appendRepairedUtf8(std::string_view text, std::string& out) {
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

size_t wellFormedBytes(std::string_view text) {
  size_t well_formed = 0;
  while (well_formed < text.size()) {
    const size_t length = sequenceLength(text.substr(well_formed));
    if (length == 0)
      break;
    well_formed += length;
  }
  return well_formed;
}

bool isUtf8(std::string_view text) {
  return wellFormedBytes(text) == text.size();
}

}  // namespace morvik::services
