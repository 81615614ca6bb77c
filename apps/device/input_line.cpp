#include "apps/device/input_line.h"

#include "apps/device/verbs.h"

namespace morvik_device {
namespace {

constexpr auto kEndOfFile = std::istream::traits_type::eof();

}  // namespace

InputLine readInputLine(std::istream& stream, std::string& line) {
  line.clear();
  std::streambuf& buffer = *stream.rdbuf();
  auto next = buffer.sbumpc();
  if (next == kEndOfFile)
    return InputLine::kEnd;
  for (; next != kEndOfFile && next != '\n'; next = buffer.sbumpc()) {
    if (line.size() == kMaxLineBytes)
      return InputLine::kTooLong;
    line.push_back(std::istream::traits_type::to_char_type(next));
  }
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return InputLine::kRead;
}

void skipInputLine(std::istream& stream) {
  std::streambuf& buffer = *stream.rdbuf();
  for (auto next = buffer.sbumpc(); next != kEndOfFile && next != '\n';)
    next = buffer.sbumpc();
}

}  // namespace morvik_device
