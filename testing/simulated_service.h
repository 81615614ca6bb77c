// A healthy tracking service without a network: it opens what arrives, counts each event once by its id, attributes
// installs and answers as a service in good order does.
//
//   SimulatedService service({cipher, compressor, random}, {"app", "hash", "tracking"}, [&] { return loop.now(); });
//   transport.on("").alwaysBy(service.reply());
//
// One that misbehaves is made of the same parts: receive() with or without counting, then another answer.
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

/// The number of the first install that is attributed; the others follow.
inline constexpr int64_t kFirstUserNumber = 100'001;
/// "ResultCode" of an answer in good order, of a conversion without parameters, and of a schedule that the device has.
inline constexpr int64_t kResultCodeFine = 0;
inline constexpr int64_t kResultCodeNoParameters = 1;
inline constexpr int64_t kResultCodeUnchanged = 1001;

/// Those of the app, as the device was given them.
struct ServiceKeys {
  std::string app_key;
  std::string hash_key;
  std::string tracking_key;
};

/// A request as the service understood it.
struct ServedRequest {
  /// Nothing for a path that the service does not have; refused then.
  std::optional<ServiceEndpoint> endpoint;
  /// Opened and parsed; a form as a dictionary of texts. Absent for a body without parameters, for the app
  /// configuration and for what was refused.
  kit::Value payload;
  /// Why it could not be taken, and the status that says so; the device is told by a bad status.
  std::optional<std::string> refusal;
  int refusal_status = 0;
  /// What it brought was taken in.
  bool counted = false;
  size_t events_new = 0;    ///< events counted for the first time
  size_t events_again = 0;  ///< events whose ids were counted before
};

/// Status and JSON of an answer.
struct UsualAnswer {
  int status = 0;
  kit::Value json;
};

/// Any thread; opening a payload is done outside the lock. What is handed in must outlive the service.
class SimulatedService {
 public:
  enum class Counting { kYes, kNo };

  /// `now` is the service's own clock. The latest `max_remembered` requests, and as many events, are kept to be looked
  /// at; the counts are exact whatever it is.
  SimulatedService(services::SealingTools tools, ServiceKeys keys, std::function<kit::Date()> now,
                   size_t max_remembered = kMaxRecordedEntries);

  // What it serves.
  /// Members laid over the referral record of the conversions that follow.
  void setAttribution(kit::Dictionary members);
  /// What the app configuration says; false at first.
  void setPremiumPostback(bool is_on);
  /// The members of the schedule and the check sum that stands for them.
  void setSchedule(kit::Dictionary members, std::string check_sum);

  // Serving.
  /// Opens the request and remembers it; takes in what it brings unless told otherwise.
  ServedRequest receive(const kit::Request& request, Counting counting = Counting::kYes);
  /// The usual answer: it accepts what was counted and only that.
  UsualAnswer usualAnswer(const ServedRequest& served);
  Answer answer(const ServedRequest& served);
  /// Both in one: a healthy service.
  Answer serve(const kit::Request& request) { return answer(receive(request)); }
  ScriptedTransport::Reply reply() {
    return [this](const kit::Request& request) { return serve(request); };
  }

  // Looking.
  /// Oldest first.
  std::vector<ServedRequest> requests() const { return requests_.all(); }
  std::vector<ServedRequest> requests(ServiceEndpoint endpoint) const;
  /// Each event counted, once, in the order in which they were first counted, as they stood in their batch.
  std::vector<kit::Value> events() const { return events_.all(); }
  /// How often an event with this id arrived in batches that were counted.
  size_t arrivalsOf(std::string_view event_id) const;
  size_t distinctEvents() const;
  size_t eventArrivals() const;
  size_t requestCount() const;
  size_t refusedCount() const;
  /// Installs that were attributed.
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

  mutable std::mutex mutex_;  // guards what follows
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
