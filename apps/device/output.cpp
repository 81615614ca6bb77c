#include "apps/device/output.h"

#include <string>

#include "services/json_writer.h"

namespace morvik_device {

namespace kit = morvik::kit;

Output::Output(std::FILE* stream) : taker_([this, stream](const kit::Value& line) { writeTo(stream, line); }) {}

void Output::verbDone(std::string_view verb, const Outcome& outcome) {
  kit::MutableDictionary line;
  line.set("verb", verb);
  line.set("ok", !outcome.refusal.has_value());
  if (outcome.refusal)
    line.set("error", *outcome.refusal);
  for (const kit::Entry& field : outcome.fields.entries())
    line.set(field.key, field.value);
  write(std::move(line));
}

void Output::callback(std::string_view selector, const kit::Array& arguments) {
  write(kit::Dictionary{{"callback", selector}, {"args", arguments}});
}

void Output::callbackOfModule(std::string_view selector, std::string_view module, const kit::Array& arguments) {
  write(kit::Dictionary{{"callback", selector}, {"module", module}, {"args", arguments}});
}

bool Output::failed() const {
  const std::lock_guard hold(mutex_);
  return failed_;
}

void Output::write(const kit::Value& line) {
  taker_(line);
}

void Output::writeTo(std::FILE* stream, const kit::Value& line) {
  std::string text;
  morvik::services::appendJsonDescription(line, text);
  text.push_back('\n');
  const std::lock_guard hold(mutex_);
  const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
  if (!written || std::fflush(stream) != 0)
    failed_ = true;
}

}  // namespace morvik_device
