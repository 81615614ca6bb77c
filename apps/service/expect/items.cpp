#include "apps/service/expect/items.h"

#include <charconv>

#include "apps/service/base/ascii.h"
#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr const char* kParam = "param";

Json partOf(const Json& value, const std::string& name) {
  if (value.is_object()) {
    const auto found = value.find(name);
    return found == value.end() ? Json(nullptr) : *found;
  }
  std::size_t index = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
  const bool is_index = error == std::errc() && end == name.data() + name.size();
  return value.is_array() && is_index && index < value.size() ? value[index] : Json(nullptr);
}

/// A structured parameter is the JSON text of an object; null for any other.
Json opened(const Json& param) {
  try {
    Json object = parseJson(param.get_ref<const std::string&>(), kParam);
    return object.is_object() ? object : Json(nullptr);
  } catch (const Refusal&) {
    return nullptr;
  }
}

Json follow(Json value, const FieldPath& path, std::size_t begin) {
  for (std::size_t i = begin; i < path.size() && !value.is_null(); ++i) {
    if (value.is_string() && i > 0 && path[i - 1] == kParam)
      value = opened(value);
    value = partOf(value, path[i]);
  }
  return value;
}

Json headerOf(const Json& request, const FieldPath& path) {
  if (path.size() != 2)
    return nullptr;
  for (const Json& header : request.at("headers")) {
    if (equalWithoutCase(header.at(0).get_ref<const std::string&>(), path[1]))
      return header.at(1);
  }
  return nullptr;
}

Json requestField(const Json& request, const FieldPath& path) {
  const std::string& name = path.front();
  if (name == "header")
    return headerOf(request, path);
  if (name == "status")
    return request.at("answer").at("status");
  if (name == "refused")
    return !request.at("refusal").is_null();
  if (name == "refusal")
    return partOf(request.at("refusal"), "error");
  if (name == "behaviour")
    return partOf(request.at("behaviour"), "kind");
  if (name == "install")
    return partOf(request.at("payload"), "install_id");
  if (name == "answer")
    return follow(Json::parse(request.at("answer").at("body").get<std::string>(), nullptr, false), path, 1);
  return follow(partOf(request, name), path, 1);
}

}  // namespace

const std::vector<std::string_view>& eventFields() {
  static const std::vector<std::string_view> fields = {"group",         "activity",   "param",   "prev_group",
                                                       "prev_activity", "created_at", "event_id"};
  return fields;
}

const std::vector<std::string_view>& allFields() {
  static const std::vector<std::string_view> fields = [] {
    std::vector<std::string_view> all = eventFields();
    for (const std::string_view each :
         {"id", "time", "endpoint", "method", "path", "header", "body", "body_bytes", "payload", "install", "counted",
          "refused", "refusal", "behaviour", "status", "answer", "events_new", "events_again", "impressions"})
      all.push_back(each);
    return all;
  }();
  return fields;
}

std::vector<Item> itemsOf(const Json& request, bool events) {
  if (!events)
    return {{request}};
  std::vector<Item> items;
  if (request.at("endpoint") != "tracking" || request.at("counted") != true)
    return items;
  for (const Json& event : request.at("payload").at("activity_info"))
    items.push_back({request, &event});
  return items;
}

Json readField(const Item& item, const FieldPath& path) {
  for (const std::string_view name : eventFields()) {
    if (path.front() == name)
      return item.event == nullptr ? Json(nullptr) : follow(*item.event, path, 0);
  }
  return requestField(item.request, path);
}

std::string describeItem(const Item& item) {
  std::string text = "request " + item.request.at("id").dump();
  if (item.event == nullptr)
    return text + ", " + item.request.at("method").get<std::string>() + " " +
           item.request.at("path").get<std::string>();
  const std::string param = memberText(*item.event, "param");
  return text + ", event " + memberText(*item.event, "group") + "/" + memberText(*item.event, "activity") +
         (param.empty() ? "" : " (" + param + ")");
}

std::string identityOf(const Item& item) {
  return item.event == nullptr ? "" : memberText(*item.event, "event_id");
}

}  // namespace morvik_service
