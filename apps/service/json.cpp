#include "apps/service/json.h"

#include "apps/service/refusal.h"

namespace morvik_service {
namespace {

// Looks at brackets outside strings only. Runs before the parser because the parser's own depth callback costs
// quadratic time on long arrays.
bool nestsTooDeep(std::string_view text) {
  int depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonDepth)
        return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

}  // namespace

Json parseJson(std::string_view text, const std::string& where) {
  if (nestsTooDeep(text)) {
    throw Refusal(400, "the JSON nests deeper than " + std::to_string(kMaxJsonDepth) + " levels", where,
                  "send flatter JSON");
  }
  try {
    return Json::parse(text);
  } catch (const Json::parse_error& error) {
    throw Refusal(400, "not JSON: byte " + std::to_string(error.byte) + " cannot be read", where,
                  "send one JSON document in UTF-8");
  } catch (const Json::out_of_range&) {
    throw Refusal(400, "not JSON: a number is too large", where, "send numbers that a double can hold");
  }
}

std::string jsonText(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace morvik_service
