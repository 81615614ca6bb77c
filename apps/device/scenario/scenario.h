// A scenario of one device: what its user does, how service and network behave, and what is expected.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "apps/device/options.h"
#include "apps/device/scenario/mistake.h"
#include "apps/device/scenario/times.h"
#include "apps/device/verbs.h"
#include "kit/date.h"
#include "kit/value.h"
#include "testing/service_endpoint.h"

namespace morvik_device::scenario {

inline constexpr size_t kMaxSteps = 10'000;
/// Including repetitions.
inline constexpr size_t kMaxVerbs = 100'000;
inline constexpr size_t kMaxExpectations = 10'000;
inline constexpr size_t kMaxRules = 10'000;
inline constexpr size_t kMaxPhases = 1'000;

/// How many of something.
struct Count {
  size_t least = 0;
  size_t most = std::numeric_limits<size_t>::max();

  bool includes(size_t count) const { return least <= count && count <= most; }
};

struct StepVerb {
  Command command;
  std::string text;  ///< as it was written
  Place place;
};

/// Instead of a kind: the whole ledger is sound.
inline constexpr const char* kSoundLedger = "sound";

/// What is expected, and where that stands in the file.
struct Expectation {
  enum class Subject { kRequest, kDelivered, kCallback, kLog, kStore, kLedger };

  Subject subject = Subject::kRequest;
  Place place;
  /// Endpoint's name, "GROUP/NAME", the callback's selector, the log's text, the property, kSoundLedger or a kind of
  /// the ledger.
  std::string name;
  morvik::testing::ServiceEndpoint endpoint = morvik::testing::ServiceEndpoint::kConversion;
  std::optional<Count> count;
  std::optional<morvik::kit::Value> with;  ///< pattern of payload, arguments, element or account
  std::optional<morvik::kit::Value> is;    ///< pattern of a property
  std::optional<std::string> param;        ///< of a delivered event
  std::optional<std::string> module;       ///< whose callback it is
  std::optional<TimeRange> when;           ///< of requests, callbacks and lines: their time
  bool whole_line = false;                 ///< of a log line: the text is the whole message, not a part of it
};

struct Step {
  int64_t at_milliseconds = 0;
  Place place;
  std::vector<StepVerb> verbs;
  size_t repeat = 1;                      ///< how often all the verbs are run
  int64_t every_milliseconds = 0;         ///< between two rounds of the verbs
  std::vector<Expectation> expectations;  ///< checked after the verbs

  /// Time of its last round.
  int64_t lastMillisecond() const { return at_milliseconds + static_cast<int64_t>(repeat - 1) * every_milliseconds; }
};

/// How long an answer takes by default.
inline constexpr TimeRange kDefaultDelay = {100, 100};

/// How the service, or something in front of it, answers.
struct AnswerRule {
  enum class Kind {
    kUsual,       ///< as a healthy service does, overridden by `json`
    kText,        ///< `status` and `text`
    kDropBefore,  ///< the connection breaks before the service has the request
    kDropAfter,   ///< the connection breaks on the way back
    kSilence,     ///< no answer
  };

  Kind kind = Kind::kUsual;
  Place place;
  int status = 200;
  std::string text;
  morvik::kit::Value json;  ///< an object: members that override the usual answer
  bool counted = false;     ///< the service counts the content of the request
  bool twice = false;       ///< the request reaches the service twice
  size_t times = 1;         ///< number of answers
  bool always = false;      ///< for all further requests
  double chance = 1.0;      ///< probability of this answer instead of the usual one
  TimeRange delay;
};

/// During it, nothing reaches the service.
struct NetworkPhase {
  enum class Kind {
    kOffline,  ///< no network, and the device knows it
    kDead,     ///< no network, but the device does not know it
    kPortal,   ///< something else answers: status 200 and `text`
  };

  Kind kind = Kind::kOffline;
  Place place;
  int64_t from_milliseconds = 0;
  int64_t to_milliseconds = kMaxDurationMilliseconds;
  std::string text;
};

struct ServiceScript {
  /// By endpoint.
  std::array<std::vector<AnswerRule>, morvik::testing::kServiceEndpoints.size()> rules;
  std::optional<TimeRange> delay;  ///< of answers that name none; else kDefaultDelay
  morvik::kit::Value attribution;  ///< members that override the referral record
  bool premium_postback = false;
  morvik::kit::Value schedule;           ///< an object; absent: a small one
  int64_t clock_ahead_milliseconds = 0;  ///< relative to the device's clock at the start
};

struct Scenario {
  std::string story;
  morvik::kit::Date start;
  std::optional<int64_t> end_milliseconds;
  int shown_log_level = 2;
  Options device;
  ServiceScript service;
  std::vector<NetworkPhase> network;
  std::vector<Step> steps;
  std::vector<Expectation> expectations;  ///< checked at the end

  /// When the scenario ends.
  int64_t lastMillisecond() const;
};

/// 2024-03-01T00:00:00Z, a Friday.
inline constexpr morvik::kit::Date kDefaultStart = morvik::kit::Date::fromSeconds(1'709'251'200);
/// A scenario without an end ends this long after its last step.
inline constexpr int64_t kAfterwardsMilliseconds = 60'000;

inline int64_t Scenario::lastMillisecond() const {
  if (end_milliseconds)
    return *end_milliseconds;
  const int64_t last_step = steps.empty() ? 0 : steps.back().lastMillisecond();
  return last_step + kAfterwardsMilliseconds;
}

}  // namespace morvik_device::scenario
