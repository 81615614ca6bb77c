// The service's JSON: one type, one way in, one way out.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace morvik_service {

/// Keeps members in the order in which they were sent, so that a payload is shown as the device wrote it.
using Json = nlohmann::ordered_json;

/// Arrays and objects may nest this deep; writing a value recurses, so depth is stack.
inline constexpr std::size_t kMaxJsonDepth = 128;
/// The most members of an object: since their order is kept, each is compared with all before it.
inline constexpr int kMaxJsonMembers = 1024;

/// Parses one JSON document. Throws Refusal 400 if it is not one or exceeds one of the limits above; `where` names the
/// document in the message ("the sealed payload").
Json parseJson(std::string_view text, const std::string& where);

/// The value as one line of UTF-8. Bytes that are not UTF-8 become U+FFFD: nothing that was stored can fail to be
/// shown.
std::string jsonText(const Json& value);

/// The text of a member, a number as JSON writes it; "" if there is no object, no such member, or neither in it.
std::string memberText(const Json& object, std::string_view name);

}  // namespace morvik_service
