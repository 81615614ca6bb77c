#include "services/property_list.h"

#include <charconv>
#include <cmath>
#include <string_view>

#include "kit/json_codec.h"
#include "services/dates.h"
#include "services/json_writer.h"

namespace morvik::services {
namespace {

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";
constexpr std::string_view kEnd = "</plist>\n";

class ListWriter {
 public:
  using Failure = std::optional<kit::Error>;

  explicit ListWriter(std::string& out) : out_(out) {}

  Failure write(const kit::Value& value, size_t depth) {
    switch (value.kind()) {
      case kit::Kind::kAbsent:
        return kit::Error{"an absent value has no property list form: leave the entry out"};
      case kit::Kind::kNull:
        return kit::Error{"null has no property list form: leave the entry out"};
      case kit::Kind::kBoolean:
        out_ += value.boolean() ? "<true/>" : "<false/>";
        return {};
      case kit::Kind::kInteger:
        return writeElement("integer", std::to_string(value.integer()));
      case kit::Kind::kUnsigned:
        return writeElement("integer", std::to_string(value.unsignedInteger()));
      case kit::Kind::kDouble:
        return writeDouble(value.number());
      case kit::Kind::kString:
        return writeElement("string", value.string());
      case kit::Kind::kDate:
        return writeElement("date", iso8601(value.date()));
      case kit::Kind::kArray:
      case kit::Kind::kDictionary:
        return depth < kit::kMaxJsonDepth ? writeContainer(value, depth + 1)
                                          : kit::Error{"containers are nested too deeply"};
    }
    return {};
  }

 private:
  Failure writeDouble(double number) {
    if (!std::isfinite(number))
      return kit::Error{"a number that is not finite has no property list form"};
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, number).ptr;
    return writeElement("real", {text, static_cast<size_t>(end - text)});
  }

  Failure writeContainer(const kit::Value& value, size_t depth) {
    return value.isArray() ? writeArray(value.array(), depth) : writeDictionary(value.dictionary(), depth);
  }

  Failure writeArray(const kit::Array& array, size_t depth) {
    out_ += "<array>";
    for (const kit::Value& element : array) {
      if (Failure failure = write(element, depth))
        return failure;
    }
    out_ += "</array>";
    return {};
  }

  Failure writeDictionary(const kit::Dictionary& dictionary, size_t depth) {
    out_ += "<dict>";
    for (const kit::Entry& entry : dictionary) {
      if (Failure failure = writeElement("key", entry.key.string()))
        return failure;
      if (Failure failure = write(entry.value, depth))
        return failure;
    }
    out_ += "</dict>";
    return {};
  }

  Failure writeElement(std::string_view name, std::string_view text) {
    out_.append("<").append(name).append(">");
    if (Failure failure = writeText(text))
      return failure;
    out_.append("</").append(name).append(">");
    return {};
  }

  Failure writeText(std::string_view text) {
    std::string repaired;
    appendRepairedUtf8(text, repaired);
    for (const char c : repaired) {
      if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r')
        return kit::Error{"a control character has no property list form: leave it out"};
      appendCharacter(c);
    }
    return {};
  }

  /// A carriage return as its reference: a reader would turn a bare one into a line feed.
  void appendCharacter(char c) {
    switch (c) {
      case '&':
        out_ += "&amp;";
        return;
      case '<':
        out_ += "&lt;";
        return;
      case '>':
        out_ += "&gt;";
        return;
      case '\r':
        out_ += "&#13;";
        return;
      default:
        out_ += c;
    }
  }

  std::string& out_;
};

}  // namespace

std::optional<kit::Error> appendPropertyList(const kit::Value& value, std::string& out) {
  out += kHead;
  if (auto error = ListWriter(out).write(value, 0))
    return error;
  out += kEnd;
  return {};
}

}  // namespace morvik::services
