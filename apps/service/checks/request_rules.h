// Rules for the request around a payload. Each function throws Refusal with the appropriate status.
#pragma once

#include <string>
#include <string_view>

#include "apps/service/base/keys.h"
#include "apps/service/http/form.h"
#include "apps/service/http/http_message.h"

namespace morvik_service {

/// The place that most refusals name.
inline constexpr const char* kWhereBody = "the request body";

/// 413 if the body was larger than kMaxBodyBytes.
void requireKeptBody(const HttpRequest& request);

/// 415 if the body is not declared as a form, or as JSON.
void requireForm(const HttpRequest& request);
void requireJson(const HttpRequest& request);

/// The value of a form parameter; 400 if it is missing. `meaning` says what to send in it.
const std::string& requireField(const FormFields& fields, std::string_view name, const char* meaning);

/// 403 if `app_key`, found at `where`, is not that of this service.
void requireThisApp(std::string_view app_key, const Keys& keys, const std::string& where);

/// The key text of `choice`; 503 if the service was given none.
std::string requireKeyText(const Keys& keys, KeyChoice choice);

}  // namespace morvik_service
