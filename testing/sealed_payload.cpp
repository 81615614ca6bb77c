#include "testing/sealed_payload.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <stdexcept>
#include <variant>

#include "services/text_codes.h"
#include "testing/json_reader.h"

namespace morvik::testing {
namespace {

/// More than any test puts into one payload.
constexpr size_t kMaxPayloadBytes = size_t{256} * 1024 * 1024;

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
      continue;
    }
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + 1, 2);
    unsigned byte = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2)
      throw std::invalid_argument("form body: % without two hexadecimal digits in " + std::string(text));
    out += static_cast<char>(byte);
    i += 2;
  }
  return out;
}

std::string hexDecoded(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  if (text.size() % 2 != 0)
    throw std::invalid_argument("hexadecimal text: an odd number of digits");
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const size_t high = kDigits.find(text[i]);
    const size_t low = kDigits.find(text[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos)
      throw std::invalid_argument("hexadecimal text: no lower-case digit at " + std::to_string(i));
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

bool equalWithoutCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
  });
}

const std::string& fieldOf(const std::map<std::string, std::string, std::less<>>& fields, std::string_view name) {
  const auto found = fields.find(name);
  if (found == fields.end())
    throw std::invalid_argument("envelope: the body has no parameter \"" + std::string(name) + "\"");
  return found->second;
}

}  // namespace

std::map<std::string, std::string, std::less<>> formFields(std::string_view body) {
  std::map<std::string, std::string, std::less<>> fields;
  while (!body.empty()) {
    const std::string_view pair = body.substr(0, body.find('&'));
    body.remove_prefix(std::min(body.size(), pair.size() + 1));
    const size_t equals = pair.find('=');
    if (equals == std::string_view::npos)
      throw std::invalid_argument("form body: no \"=\" in \"" + std::string(pair) + "\"");
    fields[percentDecoded(pair.substr(0, equals))] = percentDecoded(pair.substr(equals + 1));
  }
  return fields;
}

OpenedEnvelope openEnvelope(const services::SealingTools& tools, const kit::Request& request,
                            std::string_view key_text) {
  const auto fields = formFields(request.body);
  const auto sealed = services::fromBase64Url(fieldOf(fields, "j"));
  if (!sealed)
    throw std::invalid_argument("envelope: parameter \"j\" is not base64url");
  const auto plain = services::openSealed(tools, key_text, *sealed, kMaxPayloadBytes);
  if (const auto* error = std::get_if<kit::Error>(&plain))
    throw std::invalid_argument("envelope: " + error->message);
  return {fieldOf(fields, "k"), json(std::get<std::string>(plain))};
}

kit::Value openDemographics(const services::SealingTools& tools, const kit::Request& request,
                            std::string_view key_text) {
  const auto fields = formFields(request.body);
  const auto plain = services::openSealed(tools, key_text, hexDecoded(fieldOf(fields, "j")), kMaxPayloadBytes);
  if (const auto* error = std::get_if<kit::Error>(&plain))
    throw std::invalid_argument("demographics: " + error->message);
  return json(std::get<std::string>(plain));
}

std::string headerOf(const kit::Request& request, std::string_view name) {
  const auto found =
      std::find_if(request.headers.begin(), request.headers.end(),
                   [name](const kit::HttpHeader& header) { return equalWithoutCase(header.name, name); });
  return found == request.headers.end() ? "" : found->value;
}

}  // namespace morvik::testing
