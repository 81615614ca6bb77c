#include "apps/service/store/secrets.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "apps/service/base/ascii.h"
#include "apps/service/base/hexadecimal.h"

namespace morvik_service {
namespace {

constexpr std::array<std::string_view, 5> kCredentialHeaders = {"Authorization", "Proxy-Authorization", "Cookie",
                                                                "Set-Cookie", "X-Api-Key"};

// The byte that %XX at the beginning of `text` stands for, or -1.
int percentDecoded(std::string_view text) {
  if (text.size() < 3 || text[0] != '%')
    return -1;
  const int high = hexadecimalDigit(text[1]);
  const int low = hexadecimalDigit(text[2]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

// Bytes at the beginning of `text` that spell `key` as a form or a URL may: a byte as it is or as %XX, a blank as "+"
// too; 0 when they spell something else.
std::size_t spelling(std::string_view text, std::string_view key) {
  std::size_t at = 0;
  for (const char c : key) {
    if (at == text.size())
      return 0;
    if (percentDecoded(text.substr(at)) == static_cast<unsigned char>(c)) {
      at += 3;
    } else if (text[at] == c || (c == ' ' && text[at] == '+')) {
      ++at;
    } else {
      return 0;
    }
  }
  return at;
}

std::string withEscapedSlashes(const std::string& text) {
  std::string escaped;
  for (const char c : text)
    escaped += c == '/' ? std::string("\\/") : std::string(1, c);
  return escaped;
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
    const std::string quoted = jsonText(key);
    const std::string inside = quoted.substr(1, quoted.size() - 2);
    for (const std::string& form : {key, inside, withEscapedSlashes(inside)}) {
      if (std::find(secrets_.begin(), secrets_.end(), form) == secrets_.end())
        secrets_.push_back(form);
    }
  }
}

bool Secrets::cover(std::string& text) const {
  bool covered = false;
  for (const std::string& secret : secrets_) {
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + secret.size())) {
      text.replace(at, secret.size(), secret.size(), '*');
      covered = true;
    }
  }
  // Most bodies contain no escapes; they are not searched byte by byte.
  return text.find_first_of("%+") == std::string::npos ? covered : coverSpellings(text) || covered;
}

bool Secrets::coverSpellings(std::string& text) const {
  bool covered = false;
  for (const std::string& secret : secrets_) {
    for (std::size_t at = 0; at < text.size(); ++at) {
      const std::size_t length = spelling(std::string_view(text).substr(at), secret);
      if (length > 0) {
        text.replace(at, length, length, '*');
        covered = true;
      }
    }
  }
  return covered;
}

// JSON text may be escaped in a body, so the values themselves are searched, and the names of members.
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
