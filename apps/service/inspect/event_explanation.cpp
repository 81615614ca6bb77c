#include "apps/service/inspect/event_explanation.h"

namespace morvik_service {
namespace {

std::string answerOf(const Json& request) {
  std::string text = request.at("sent").get<bool>() ? "answer " + std::to_string(request.at("status").get<int>())
                                                    : "the connection was closed without an answer";
  if (const Json& refused = request.at("refused");
      refused.is_string() && !refused.get_ref<const std::string&>().empty())
    text += ": " + refused.get<std::string>();
  return text;
}

std::string arrivalOf(const Json& request) {
  const std::string arrival = request.at("arrival");
  const char* how = arrival == "first" ? "arrived first" : arrival == "repeated" ? "arrived again" : "was not counted";
  return how + std::string(" with request ") + std::to_string(request.at("id").get<std::int64_t>()) + " of " +
         request.at("time").get<std::string>() + " (" + answerOf(request) + ")";
}

}  // namespace

std::string eventSentence(const Json& history) {
  std::string text;
  for (const Json& request : history.at("requests"))
    text += (text.empty() ? "" : "; ") + arrivalOf(request);
  if (text.empty())
    text = history.at("known").get<bool>() ? "arrived with requests that have been deleted" : "has not arrived";
  if (!history.at("complete").get<bool>())
    text += "; of the requests that were not counted, those before number " +
            std::to_string(history.at("searched_from").get<std::int64_t>()) + " were not looked at";
  return text;
}

}  // namespace morvik_service
