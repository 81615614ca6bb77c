#include "apps/service/http/form.h"

#include <algorithm>

#include "apps/service/base/hexadecimal.h"
#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr const char* kWhereForm = "the request body";

std::string unescape(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      plain.push_back(' ');
    } else if (text[i] != '%') {
      plain.push_back(text[i]);
    } else {
      const int high = i + 1 < text.size() ? hexadecimalDigit(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? hexadecimalDigit(text[i + 2]) : -1;
      if (high < 0 || low < 0) {
        throw Refusal(400, "bad form encoding: a percent sign without two hexadecimal digits", kWhereForm,
                      "write a percent sign itself as %25");
      }
      plain.push_back(static_cast<char>(high * 16 + low));
      i += 2;
    }
  }
  return plain;
}

std::pair<std::string, std::string> parseField(std::string_view field) {
  const std::size_t equals = field.find('=');
  if (equals == std::string_view::npos) {
    throw Refusal(400, "bad form encoding: a field without \"=\"", kWhereForm, "send name=value pairs joined with &");
  }
  return {unescape(field.substr(0, equals)), unescape(field.substr(equals + 1))};
}

}  // namespace

FormFields parseForm(std::string_view body) {
  FormFields fields;
  while (!body.empty()) {
    const std::size_t end = std::min(body.find('&'), body.size());
    if (fields.size() == kMaxFormFields) {
      throw Refusal(400, "more than " + std::to_string(kMaxFormFields) + " form fields", kWhereForm,
                    "send the fields that the protocol lists");
    }
    auto field = parseField(body.substr(0, end));
    if (findField(fields, field.first) != nullptr) {
      throw Refusal(400, "a form field is given twice", kWhereForm, "send each field once");
    }
    fields.push_back(std::move(field));
    body.remove_prefix(std::min(end + 1, body.size()));
  }
  return fields;
}

const std::string* findField(const FormFields& fields, std::string_view name) {
  const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return field.first == name; });
  return found == fields.end() ? nullptr : &found->second;
}

}  // namespace morvik_service
