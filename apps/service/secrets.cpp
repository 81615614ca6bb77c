#include "apps/service/secrets.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "apps/service/ascii.h"

namespace morvik_service {
namespace {

constexpr std::array<std::string_view, 5> kCredentialHeaders = {"Authorization", "Proxy-Authorization", "Cookie",
                                                                "Set-Cookie", "X-Api-Key"};

bool isPlain(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::string percentEncoded(std::string_view text, const char* digits) {
  std::string encoded;
  for (const char c : text) {
    if (isPlain(c)) {
      encoded.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return encoded;
}

bool isCredential(std::string_view name) {
  return std::any_of(kCredentialHeaders.begin(), kCredentialHeaders.end(),
                     [&](std::string_view each) { return equalWithoutCase(each, name); });
}

}  // namespace

Secrets::Secrets(const Keys& keys) {
  for (const std::string& key : {keys.hash_key, keys.tracking_key}) {
    if (key.size() < kLeastSecretBytes)
      continue;
    secrets_.push_back(key);
    const std::string quoted = jsonText(key);
    if (quoted.size() > key.size() + 2)
      secrets_.push_back(quoted.substr(1, quoted.size() - 2));
    for (const char* digits : {"0123456789ABCDEF", "0123456789abcdef"}) {
      const std::string encoded = percentEncoded(key, digits);
      if (encoded != key && encoded != secrets_.back())
        secrets_.push_back(encoded);
    }
  }
}

bool Secrets::cover(std::string& text) const {
  bool covered = false;
  for (const std::string& secret : secrets_) {
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
      text.replace(at, secret.size(), secret.size(), '*');
      covered = true;
    }
  }
  return covered;
}

// A text of JSON may stand escaped in a body, so the values themselves are looked at, names of members too.
void Secrets::cover(Json& value) const {
  if (value.is_string()) {
    std::string text = value.get<std::string>();
    if (cover(text))
      value = std::move(text);
  } else if (value.is_array()) {
    for (Json& each : value)
      cover(each);
  } else if (value.is_object()) {
    coverMembers(value);
  }
}

void Secrets::coverMembers(Json& object) const {
  std::vector<std::string> telling;
  for (auto& [name, member] : object.items()) {
    cover(member);
    std::string shown = name;
    if (cover(shown))
      telling.push_back(name);
  }
  for (const std::string& name : telling) {
    std::string shown = name;
    cover(shown);
    object[shown] = std::move(object[name]);
    object.erase(name);
  }
}

void Secrets::hide(RequestRecord& record) const {
  for (auto& [name, value] : record.request.headers) {
    if (isCredential(name)) {
      value = "(hidden, " + std::to_string(value.size()) + " bytes)";
    } else {
      cover(value);
      cover(name);
    }
  }
  cover(record.request.method);
  cover(record.request.path);
  cover(record.request.body);
  cover(record.reply.body);
  for (std::optional<Json>* each : {&record.payload, &record.refusal, &record.behaviour}) {
    if (*each)
      cover(**each);
  }
}

}  // namespace morvik_service
