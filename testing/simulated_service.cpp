#include "testing/simulated_service.h"

#include <charconv>
#include <stdexcept>
#include <utility>
#include <variant>

#include "services/dates.h"
#include "services/json_writer.h"
#include "testing/json_reader.h"
#include "testing/sealed_payload.h"

namespace morvik::testing {
namespace {

using kit::Value;

constexpr int kOk = 200;
constexpr int kBadRequest = 400;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kUnavailable = 503;

/// Why a request is refused before it is recorded.
class Refused : public std::runtime_error {
 public:
  Refused(int status, const std::string& reason) : std::runtime_error(reason), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

Value formOf(const std::string& body) {
  kit::MutableDictionary form;
  for (const auto& [name, value] : formFields(body))
    form.set(name, value);
  return form;
}

Value plainJson(const std::string& body) {
  auto read = readJson(body);
  if (const auto* error = std::get_if<kit::Error>(&read))
    throw std::invalid_argument("the body is not JSON: " + error->message);
  return std::get<Value>(std::move(read));
}

void needKind(kit::Kind kind, const Value& value, const char* what) {
  if (value.kind() != kind)
    throw std::invalid_argument(std::string(what) + " is missing or of another kind");
}

/// Checks for what an answer needs.
void checkForm(const ServiceEndpointRow& row, const Value& payload) {
  if (row.form == PayloadForm::kJsonArray) {
    needKind(kit::Kind::kArray, payload, "the array of the body");
    return;
  }
  needKind(kit::Kind::kDictionary, payload, "the object of the payload");
  for (size_t i = 0; i < row.required_texts.size() && !row.required_texts[i].empty(); ++i)
    needKind(kit::Kind::kString, payload[row.required_texts[i]], std::string(row.required_texts[i]).c_str());
  if (row.endpoint == ServiceEndpoint::kReEngagement)
    needKind(kit::Kind::kInteger, payload["deeplink_info"]["conversion_key"], "deeplink_info.conversion_key");
  if (row.counting != PayloadCounting::kEvents)
    return;
  needKind(kit::Kind::kArray, payload["activity_info"], "activity_info");
  needKind(kit::Kind::kArray, payload["impression_info"], "impression_info");
  for (const Value& event : payload["activity_info"].array())
    needKind(kit::Kind::kString, event["event_id"], "event_id of an activity");
}

int64_t compactNumber(kit::Date date) {
  const std::string text = services::utcDateText(date);
  int64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace

SimulatedService::SimulatedService(services::SealingTools tools, ServiceKeys keys, std::function<kit::Date()> now,
                                   size_t max_remembered)
    : tools_(tools),
      keys_(std::move(keys)),
      now_(std::move(now)),
      requests_(max_remembered),
      events_(max_remembered),
      schedule_({{"campaigns", kit::Array{}}}) {}

void SimulatedService::setAttribution(kit::Dictionary members) {
  const std::lock_guard lock(mutex_);
  attribution_ = std::move(members);
}

void SimulatedService::setPremiumPostback(bool is_on) {
  const std::lock_guard lock(mutex_);
  premium_postback_ = is_on;
}

void SimulatedService::setSchedule(kit::Dictionary members, std::string check_sum) {
  const std::lock_guard lock(mutex_);
  schedule_ = std::move(members);
  schedule_check_sum_ = std::move(check_sum);
}

// --------------------------------------------------------------------------------------------------------- receiving

ServedRequest SimulatedService::receive(const kit::Request& request, Counting counting) {
  ServedRequest served = opened(request);
  {
    const std::lock_guard lock(mutex_);
    ++request_count_;
    if (served.refusal)
      ++refused_count_;
    served.counted = counting == Counting::kYes && !served.refusal;
    if (served.counted && rowOf(*served.endpoint).counting == PayloadCounting::kEvents)
      countEvents(served);
  }
  requests_.add(served);
  return served;
}

ServedRequest SimulatedService::opened(const kit::Request& request) const {
  ServedRequest served;
  served.endpoint = endpointOf(request.url);
  try {
    if (!served.endpoint)
      throw Refused(kNotFound, "no endpoint has this path: " + request.url);
    const ServiceEndpointRow& row = rowOf(*served.endpoint);
    Value payload = openedPayload(row, request);
    if (!payload.isAbsent())
      checkForm(row, payload);
    else if (row.payload_required)
      throw Refused(kBadRequest, "the body is empty");
    served.payload = std::move(payload);
  } catch (const Refused& refused) {
    served.refusal = refused.what();
    served.refusal_status = refused.status();
  } catch (const std::invalid_argument& mistake) {
    served.refusal = mistake.what();
    served.refusal_status = kBadRequest;
  }
  return served;
}

Value SimulatedService::openedPayload(const ServiceEndpointRow& row, const kit::Request& request) const {
  if (request.body.empty())
    return {};
  const std::string key = row.key == KeyChoice::kTrackingKey ? keys_.tracking_key : keys_.hash_key + keys_.hash_key;
  switch (row.form) {
    case PayloadForm::kAppKeyInPath:
      return {};
    case PayloadForm::kJsonArray:
    case PayloadForm::kJsonObject:
      return plainJson(request.body);
    case PayloadForm::kForm:
      return formOf(request.body);
    case PayloadForm::kHexadecimal:
      return openDemographics(tools_, request, key);
    case PayloadForm::kEnvelope:
      break;
  }
  return openedEnvelope(request, key);
}

Value SimulatedService::openedEnvelope(const kit::Request& request, const std::string& key_text) const {
  OpenedEnvelope envelope = openEnvelope(tools_, request, key_text);
  if (envelope.app_key != keys_.app_key)
    throw Refused(kForbidden, "the app key is another one: \"" + envelope.app_key + "\"");
  return std::move(envelope.payload);
}

void SimulatedService::countEvents(ServedRequest& served) {
  for (const Value& event : served.payload["activity_info"].array()) {
    ++event_arrivals_;
    if (++arrivals_[std::string(event["event_id"].string())] > 1) {
      ++served.events_again;
      continue;
    }
    ++served.events_new;
    events_.add(event);
  }
}

// --------------------------------------------------------------------------------------------------------- answering

Answer SimulatedService::answer(const ServedRequest& served) {
  const UsualAnswer usual = usualAnswer(served);
  return Answer::json(usual.status, usual.json);
}

UsualAnswer SimulatedService::usualAnswer(const ServedRequest& served) {
  if (served.refusal)
    return {served.refusal_status, kit::Dictionary{{"error", *served.refusal}}};
  // For an erasure, a good status is the acceptance.
  if (served.endpoint == ServiceEndpoint::kErasure && !served.counted)
    return {kUnavailable, kit::Dictionary{{"error", "the request was not counted"}}};
  return {kOk, acceptingAnswer(served)};
}

Value SimulatedService::acceptingAnswer(const ServedRequest& served) {
  switch (*served.endpoint) {
    case ServiceEndpoint::kConversion:
    case ServiceEndpoint::kThirdPartyConversion:
    case ServiceEndpoint::kIadAttribution:
      return attributionAnswer(served);
    case ServiceEndpoint::kReEngagement:
      return reEngagementAnswer(served);
    case ServiceEndpoint::kConfiguration: {
      const std::lock_guard lock(mutex_);
      const kit::Dictionary commerce{{"premium_postback", premium_postback_ ? "true" : "false"}};
      return kit::Dictionary{{"commerce", commerce}};
    }
    case ServiceEndpoint::kSchedule:
      return scheduleAnswer(served);
    case ServiceEndpoint::kErasure:
      return kit::Dictionary{{"subject_request_id", served.payload["subject_request_id"]}};
    default:
      return fixedAnswer(rowOf(*served.endpoint).fixed_answer, served.counted);
  }
}

Value SimulatedService::fixedAnswer(const FixedAnswer& fixed, bool is_counted) const {
  kit::MutableDictionary answer;
  if (fixed.has_time)
    answer.set("BaseTime", now_().millisecondsSince(kit::Date{}));
  const Value members = json(is_counted ? fixed.accepting : fixed.declining);
  for (const kit::Entry& member : members.dictionary())
    answer.set(member.key, member.value);
  return answer;
}

kit::MutableDictionary SimulatedService::resultAnswer(bool result) const {
  kit::MutableDictionary answer;
  answer.set("BaseTime", now_().millisecondsSince(kit::Date{}));
  answer.set("Result", result);
  return answer;
}

Value SimulatedService::attributionAnswer(const ServedRequest& served) {
  const bool has_parameters = !served.payload.isAbsent();
  kit::MutableDictionary answer = resultAnswer(has_parameters && served.counted);
  answer.set("ResultCode", has_parameters ? kResultCodeFine : kResultCodeNoParameters);
  if (!has_parameters || !served.counted)
    return answer;
  const std::lock_guard lock(mutex_);
  answer.set("Data", referralRecord(installOf(served.payload, now_())));
  return answer;
}

// The caller holds the lock, as for the next function.
SimulatedService::Install SimulatedService::installOf(const Value& payload, kit::Date now) {
  const auto number = kFirstUserNumber + static_cast<int64_t>(installs_.size());
  const auto [entry, is_new] = installs_.try_emplace(std::string(payload["install_id"].string()), Install{number, now});
  return entry->second;
}

kit::Dictionary SimulatedService::referralRecord(const Install& install) const {
  const std::string first_seen = services::utcDateText(install.first_seen);
  kit::MutableDictionary record(kit::Dictionary{{"user_no", install.user_number},
                                                {"shard_no", 1},
                                                {"referralKey", 7},
                                                {"subreferralKey", 12},
                                                {"refusn", "partner-7"},
                                                {"channel_type", 1},
                                                {"referral_data", ""},
                                                {"reengagement_conversion_key", 0},
                                                {"reengagement_data", ""},
                                                {"reengagement_datetime", 0},
                                                {"last_referral_key", 7},
                                                {"last_referral_data", ""},
                                                {"last_referral_datetime", first_seen},
                                                {"install_datetime", first_seen},
                                                {"conversion_key_list", kit::Array{2001, 2002}},
                                                {"deeplink", ""}});
  for (const kit::Entry& member : attribution_)
    record.set(member.key, member.value);
  return Value(std::move(record)).dictionary();
}

Value SimulatedService::reEngagementAnswer(const ServedRequest& served) const {
  kit::MutableDictionary answer = resultAnswer(served.counted);
  if (!served.counted)
    return answer;
  const int64_t key = served.payload["deeplink_info"]["conversion_key"].integer();
  const kit::Dictionary result{{"conversion_key", key},
                               {"reengagement_data", "click " + std::to_string(key)},
                               {"reengagement_datetime", compactNumber(now_())}};
  answer.set("Data", kit::Dictionary{{"conversion_result", result}});
  return answer;
}

Value SimulatedService::scheduleAnswer(const ServedRequest& served) const {
  kit::MutableDictionary answer = resultAnswer(served.counted);
  if (!served.counted)
    return answer;
  const std::lock_guard lock(mutex_);
  const bool is_unchanged = served.payload["checksum"].string() == schedule_check_sum_;
  answer.set("ResultCode", is_unchanged ? kResultCodeUnchanged : kResultCodeFine);
  if (is_unchanged)
    return answer;
  kit::MutableDictionary data(schedule_);
  data.set("CheckSum", schedule_check_sum_);
  answer.set("Data", std::move(data));
  return answer;
}

// ----------------------------------------------------------------------------------------------------------- looking

std::vector<ServedRequest> SimulatedService::requests(ServiceEndpoint endpoint) const {
  return requests_.matching([endpoint](const ServedRequest& served) { return served.endpoint == endpoint; });
}

size_t SimulatedService::arrivalsOf(std::string_view event_id) const {
  const std::lock_guard lock(mutex_);
  const auto found = arrivals_.find(std::string(event_id));
  return found == arrivals_.end() ? 0 : found->second;
}

size_t SimulatedService::distinctEvents() const {
  const std::lock_guard lock(mutex_);
  return arrivals_.size();
}

size_t SimulatedService::eventArrivals() const {
  const std::lock_guard lock(mutex_);
  return event_arrivals_;
}

size_t SimulatedService::requestCount() const {
  const std::lock_guard lock(mutex_);
  return request_count_;
}

size_t SimulatedService::refusedCount() const {
  const std::lock_guard lock(mutex_);
  return refused_count_;
}

size_t SimulatedService::installs() const {
  const std::lock_guard lock(mutex_);
  return installs_.size();
}

}  // namespace morvik::testing
