// A healthy tracking service without a network: it opens requests, counts each event once by its id, attributes
// installs and gives the usual answers.
//
//   SimulatedService service({cipher, compressor, random}, {"app", "hash", "tracking"}, [&] { return loop.now(); });
//   transport.on("").alwaysBy(service.reply());
//
// For one that misbehaves: receive() with or without counting, then another answer.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kit/date.h"
#include "kit/transport.h"
#include "kit/value.h"
#include "services/envelope.h"
#include "testing/recording.h"
#include "testing/scripted_transport.h"
#include "testing/service_endpoint.h"

namespace morvik::testing {

/// The user number of the first attributed install; later installs count up.
inline constexpr int64_t kFirstUserNumber = 100'001;
/// "ResultCode" of a normal answer, of a conversion without parameters, and of a schedule that the device already has.
inline constexpr int64_t kResultCodeFine = 0;
inline constexpr int64_t kResultCodeNoParameters = 1;
inline constexpr int64_t kResultCodeUnchanged = 1001;

/// The app's keys, as given to the device.
struct ServiceKeys {
  std::string app_key;
  std::string hash_key;
  std::string tracking_key;
};

/// A request as the service understood it.
struct ServedRequest {
  /// Nothing for a path that the service does not have; such a request is refused.
  std::optional<ServiceEndpoint> endpoint;
  /// Opened and parsed; a form as a dictionary of texts. Absent for a body without parameters, for the app
  /// configuration and for refused requests.
  kit::Value payload;
  /// Why the request was refused, and the status of the answer.
  std::optional<std::string> refusal;
  int refusal_status = 0;
  /// Whether the payload was taken in.
  bool counted = false;
  size_t events_new = 0;    ///< events counted for the first time
  size_t events_again = 0;  ///< events whose ids had been counted before
};

/// Status and JSON of an answer.
struct UsualAnswer {
  int status = 0;
  kit::Value json;
};

/// Any thread; payloads are opened outside the lock. All arguments must outlive the service.
class SimulatedService {
 public:
  enum class Counting { kYes, kNo };

  /// `now` is the service's own clock. The latest `max_remembered` requests, and as many events, are kept for
  /// inspection; the counts are exact in any case.
  SimulatedService(services::SealingTools tools, ServiceKeys keys, std::function<kit::Date()> now,
                   size_t max_remembered = kMaxRecordedEntries);

  // What it serves.
  /// Members that override those of the referral record in later conversions.
  void setAttribution(kit::Dictionary members);
  /// What the app configuration says; initially false.
  void setPremiumPostback(bool is_on);
  /// The members of the schedule and its check sum.
  void setSchedule(kit::Dictionary members, std::string check_sum);

  // Serving.
  /// Opens the request and records it; takes in its payload unless told otherwise.
  ServedRequest receive(const kit::Request& request, Counting counting = Counting::kYes);
  /// The usual answer: accepts exactly what was counted.
  UsualAnswer usualAnswer(const ServedRequest& served);
  Answer answer(const ServedRequest& served);
  /// Both in one call: a healthy service.
  Answer serve(const kit::Request& request) { return answer(receive(request)); }
  ScriptedTransport::Reply reply() {
    return [this](const kit::Request& request) { return serve(request); };
  }

  // Inspection.
  /// Oldest first.
  std::vector<ServedRequest> requests() const { return requests_.all(); }
  std::vector<ServedRequest> requests(ServiceEndpoint endpoint) const;
  /// Each counted event, once, in the order of its first arrival, as it was in its batch.
  std::vector<kit::Value> events() const { return events_.all(); }
  /// How often an event with this id arrived in counted batches.
  size_t arrivalsOf(std::string_view event_id) const;
  size_t distinctEvents() const;
  size_t eventArrivals() const;
  size_t requestCount() const;
  size_t refusedCount() const;
  /// Number of attributed installs.
  size_t installs() const;

 private:
  struct Install {
    int64_t user_number = 0;
    kit::Date first_seen;
  };

  ServedRequest opened(const kit::Request& request) const;
  kit::Value openedPayload(const ServiceEndpointRow& row, const kit::Request& request) const;
  kit::Value openedEnvelope(const kit::Request& request, const std::string& key_text) const;
  void countEvents(ServedRequest& served);
  Install installOf(const kit::Value& payload, kit::Date now);
  kit::Dictionary referralRecord(const Install& install) const;
  kit::Value attributionAnswer(const ServedRequest& served);
  kit::Value scheduleAnswer(const ServedRequest& served) const;
  kit::Value reEngagementAnswer(const ServedRequest& served) const;
  kit::Value acceptingAnswer(const ServedRequest& served);
  kit::Value fixedAnswer(const FixedAnswer& fixed, bool is_counted) const;
  kit::MutableDictionary resultAnswer(bool result) const;

  const services::SealingTools tools_;
  const ServiceKeys keys_;
  const std::function<kit::Date()> now_;
  Recording<ServedRequest> requests_;
  Recording<kit::Value> events_;

  mutable std::mutex mutex_;  // guards the members below
  kit::Dictionary attribution_;
  bool premium_postback_ = false;
  kit::Dictionary schedule_;
  std::string schedule_check_sum_ = "simulated-schedule-1";
  std::unordered_map<std::string, size_t> arrivals_;  // by event id
  std::map<std::string, Install, std::less<>> installs_;
  size_t event_arrivals_ = 0;
  size_t request_count_ = 0;
  size_t refused_count_ = 0;
};

}  // namespace morvik::testing
