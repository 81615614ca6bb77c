#include "apps/service/base/json.h"

#include <array>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

// Looks outside strings only, at brackets and at the colons of members. Runs before the parser because the parser's own
// depth callback costs quadratic time on long arrays, and its objects cost quadratic time on many members.
void requireModest(std::string_view text, const std::string& where) {
  std::array<int, kMaxJsonDepth + 1> members{};
  std::size_t depth = 0;
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
      if (++depth > kMaxJsonDepth) {
        throw Refusal(400, "the JSON nests deeper than " + std::to_string(kMaxJsonDepth) + " levels", where,
                      "send flatter JSON");
      }
      members[depth] = 0;
    } else if (c == ']' || c == '}') {
      depth -= depth > 0 ? 1 : 0;
    } else if (c == ':' && ++members[depth] > kMaxJsonMembers) {
      throw Refusal(400, "an object of the JSON has more than " + std::to_string(kMaxJsonMembers) + " members", where,
                    "send a list in place of so many members");
    }
  }
}

}  // namespace

Json parseJson(std::string_view text, const std::string& where) {
  requireModest(text, where);
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

std::string memberText(const Json& object, std::string_view name) {
  if (!object.is_object())
    return "";
  const auto found = object.find(name);
  if (found == object.end())
    return "";
  if (found->is_string())
    return found->get<std::string>();
  return found->is_number() ? found->dump() : "";
}

}  // namespace morvik_service
