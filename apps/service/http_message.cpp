#include "apps/service/http_message.h"

#include <algorithm>

namespace morvik_service {
namespace {

// Header names are ASCII; the locale must not have a say.
char lowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalWithoutCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lowerAscii(x) == lowerAscii(y); });
}

}  // namespace

const std::string* findHeader(const HttpRequest& request, std::string_view name) {
  const auto found = std::find_if(request.headers.begin(), request.headers.end(),
                                  [&](const auto& header) { return equalWithoutCase(header.first, name); });
  return found == request.headers.end() ? nullptr : &found->second;
}

}  // namespace morvik_service
