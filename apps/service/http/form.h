// Form-encoded request bodies.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace morvik_service {

using FormFields = std::vector<std::pair<std::string, std::string>>;

/// Most fields of a form; requests have at most three.
inline constexpr std::size_t kMaxFormFields = 64;

/// Reads "name=value&name=value" with percent escapes and plus signs for spaces. An empty body has no fields. Throws
/// Refusal 400 on a broken escape, a field without "=", a repeated name or more than kMaxFormFields fields.
FormFields parseForm(std::string_view body);

/// The value of `name`, or nullptr. The pointer is valid until `fields` changes.
const std::string* findField(const FormFields& fields, std::string_view name);

}  // namespace morvik_service
