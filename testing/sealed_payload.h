// Opens recorded requests, for assertions.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "kit/transport.h"
#include "services/envelope.h"

namespace morvik::testing {

/// The pairs of a form-encoded body, decoded; of a repeated key the last counts. std::invalid_argument for any other
/// body.
std::map<std::string, std::string, std::less<>> formFields(std::string_view body);

/// An opened envelope.
struct OpenedEnvelope {
  std::string app_key;  ///< parameter "k"
  kit::Value payload;   ///< parameter "j", decrypted, inflated and parsed
};

/// Opens the envelope in the request's body. std::invalid_argument, with the reason, for anything but a complete
/// envelope sealed with that key.
OpenedEnvelope openEnvelope(const services::SealingTools& tools, const kit::Request& request,
                            std::string_view key_text);

/// Opens the demographics in the request's body: parameter "j", sealed bytes in lower-case hexadecimal.
/// std::invalid_argument, with the reason, for anything else.
kit::Value openDemographics(const services::SealingTools& tools, const kit::Request& request,
                            std::string_view key_text);

/// The header's value; "" if the request has no header of that name (case-insensitive).
std::string headerOf(const kit::Request& request, std::string_view name);

}  // namespace morvik::testing
