#include "apps/service/checks/request_rules.h"

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

void requireType(const HttpRequest& request, std::string_view type, const char* problem, const char* fix) {
  const std::string* declared = findHeader(request, "Content-Type");
  if (declared == nullptr || declared->rfind(type, 0) != 0)
    throw Refusal(415, problem, "header Content-Type", fix);
}

}  // namespace

void requireKeptBody(const HttpRequest& request) {
  if (request.body_too_large) {
    throw Refusal(413, "the body is larger than " + std::to_string(kMaxBodyBytes) + " bytes", kWhereBody, "send less");
  }
}

void requireForm(const HttpRequest& request) {
  requireType(request, "application/x-www-form-urlencoded", "the body is not declared as a form",
              "send \"application/x-www-form-urlencoded; charset=utf-8\"");
}

void requireJson(const HttpRequest& request) {
  requireType(request, "application/json", "the body is not declared as JSON", "send \"application/json\"");
}

const std::string& requireField(const FormFields& fields, std::string_view name, const char* meaning) {
  const std::string* value = findField(fields, name);
  if (value == nullptr) {
    throw Refusal(400, "form parameter " + std::string(name) + " is missing", kWhereBody,
                  "send " + std::string(name) + ", " + meaning);
  }
  return *value;
}

void requireThisApp(std::string_view app_key, const Keys& keys, const std::string& where) {
  if (app_key != keys.app_key) {
    throw Refusal(403, "the app key is not this service's", where, "give the device and the service the same app key");
  }
}

std::string requireKeyText(const Keys& keys, KeyChoice choice) {
  std::string key_text = keyText(keys, choice);
  if (key_text.empty()) {
    throw Refusal(503, "the service was given no key for this endpoint", "the service's options",
                  "start the service with --tracking-key or a keys file");
  }
  return key_text;
}

}  // namespace morvik_service
