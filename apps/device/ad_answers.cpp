#include "apps/device/ad_answers.h"

#include <chrono>
#include <variant>

#include "host/json/simdjson_codec.h"
#include "services/dates.h"

namespace morvik_device {
namespace {

using morvik::AdClient;

constexpr std::string_view kErrorText = "the advertising client was asked to fail";
constexpr std::string_view kSearchAdsForms =
    "write absent, none, error, error:JSON or JSON, where JSON is the outer dictionary of details";
constexpr std::string_view kIadForms =
    "write none, lookup:PURCHASE,IMPRESSION (each a date like 2024-05-01T12:00:00Z, or none), determine:yes or "
    "determine:no";

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix)
    return false;
  text.remove_prefix(prefix.size());
  return true;
}

std::string mistake(const std::string& problem, std::string_view fix) {
  return problem + "; " + std::string(fix);
}

std::optional<std::string> checkDetails(std::string_view json) {
  const auto read = morvik::host::SimdjsonCodec().read(json);
  if (const auto* error = std::get_if<morvik::kit::Error>(&read))
    return mistake("the details are not JSON (" + error->message + ")", kSearchAdsForms);
  if (!std::get<morvik::kit::Value>(read).isDictionary())
    return mistake("the details are not a JSON object", kSearchAdsForms);
  return std::nullopt;
}

void answerDetails(AdClient& client, const std::optional<std::string>& details,
                   const std::optional<std::string>& error) {
  client.requestAttributionDetails = [details, error](const AdClient::AttributionDetails& answer) {
    answer(details, error);
  };
}

struct AdDate {
  bool understood = false;
  std::optional<AdClient::Time> time;
};

AdDate readDate(std::string_view text) {
  if (text == "none")
    return {true, std::nullopt};
  const auto date = morvik::services::dateFromIso8601(text);
  if (!date)
    return {};
  const std::chrono::microseconds since_1970(date->microseconds);
  return {true, AdClient::Time(std::chrono::duration_cast<AdClient::Time::duration>(since_1970))};
}

std::optional<std::string> chooseLookup(std::string_view dates, AdClient& client) {
  const size_t comma = dates.find(',');
  const AdDate purchase = readDate(dates.substr(0, comma));
  const AdDate impression = comma == std::string_view::npos ? AdDate{} : readDate(dates.substr(comma + 1));
  if (!purchase.understood || !impression.understood)
    return mistake("\"" + std::string(dates) + "\" is not two dates", kIadForms);
  client.lookupAdConversionDetails = [purchase, impression](const AdClient::ConversionDetails& answer) {
    answer(purchase.time, impression.time);
  };
  return std::nullopt;
}

}  // namespace

std::optional<std::string> chooseSearchAds(std::string_view form, AdClient& client) {
  client.requestAttributionDetails = nullptr;
  if (form == "absent")
    return std::nullopt;
  if (form == "none" || form == "error") {
    answerDetails(client, std::nullopt, form == "error" ? std::optional<std::string>(kErrorText) : std::nullopt);
    return std::nullopt;
  }
  const bool fails = takePrefix(form, "error:");
  if (auto problem = checkDetails(form))
    return problem;
  answerDetails(client, std::string(form), fails ? std::optional<std::string>(kErrorText) : std::nullopt);
  return std::nullopt;
}

std::optional<std::string> chooseIad(std::string_view form, AdClient& client) {
  client.lookupAdConversionDetails = nullptr;
  client.determineAppInstallationAttribution = nullptr;
  if (form == "none")
    return std::nullopt;
  if (takePrefix(form, "lookup:"))
    return chooseLookup(form, client);
  if (form != "determine:yes" && form != "determine:no")
    return mistake("\"" + std::string(form) + "\" is not understood", kIadForms);
  client.determineAppInstallationAttribution =
      [attributed = form == "determine:yes"](const AdClient::InstallationAttribution& answer) { answer(attributed); };
  return std::nullopt;
}

}  // namespace morvik_device
