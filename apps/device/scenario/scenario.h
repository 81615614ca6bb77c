// A story of one device: what its user does, how the world around it behaves, and what must come of it.
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
/// Repetitions counted.
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

// ------------------------------------------------------------------------------------------------------ what happens

struct StepVerb {
  Command command;
  std::string text;  ///< as it was written
  Place place;
};

/// In place of a kind: that the whole ledger is sound.
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
  std::optional<TimeRange> when;           ///< of requests, callbacks and lines: when they came
  bool whole_line = false;                 ///< of a log line: the text is the message and not a part of it
};

struct Step {
  int64_t at_milliseconds = 0;
  Place place;
  std::vector<StepVerb> verbs;
  size_t repeat = 1;                      ///< the verbs, all of them, so often
  int64_t every_milliseconds = 0;         ///< the time between two rounds of them
  std::vector<Expectation> expectations;  ///< looked at after the verbs

  /// When its last round takes place.
  int64_t lastMillisecond() const { return at_milliseconds + static_cast<int64_t>(repeat - 1) * every_milliseconds; }
};

// --------------------------------------------------------------------------------------------------- the world around

/// What an answer takes on its way.
inline constexpr TimeRange kDefaultDelay = {100, 100};

/// How the service, or what stands before it, answers.
struct AnswerRule {
  enum class Kind {
    kUsual,       ///< as a healthy service does, with `json` laid over
    kText,        ///< `status` and `text`
    kDropBefore,  ///< the connection breaks before the service has the request
    kDropAfter,   ///< the connection breaks on the way back
    kSilence,     ///< nothing comes
  };

  Kind kind = Kind::kUsual;
  Place place;
  int status = 200;
  std::string text;
  morvik::kit::Value json;  ///< an object: members laid over the usual answer
  bool counted = false;     ///< the service takes in what the request brings
  bool twice = false;       ///< the request reaches the service two times
  size_t times = 1;         ///< so often
  bool always = false;      ///< from then on
  double chance = 1.0;      ///< of being answered like this; else as usual
  TimeRange delay;
};

/// While it lasts, nothing reaches the service.
struct NetworkPhase {
  enum class Kind {
    kOffline,  ///< no network, and the device knows it
    kDead,     ///< the device believes that it has one
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
  morvik::kit::Value attribution;  ///< members laid over the referral record
  bool premium_postback = false;
  morvik::kit::Value schedule;           ///< an object; absent: a small one
  int64_t clock_ahead_milliseconds = 0;  ///< of the device's clock as it is at the start
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
  std::vector<Expectation> expectations;  ///< looked at in the end

  /// When the story is over.
  int64_t lastMillisecond() const;
};

/// 2024-03-01T00:00:00Z, a Friday.
inline constexpr morvik::kit::Date kDefaultStart = morvik::kit::Date::fromSeconds(1'709'251'200);
/// So long after the last step a story ends that does not say when.
inline constexpr int64_t kAfterwardsMilliseconds = 60'000;

inline int64_t Scenario::lastMillisecond() const {
  if (end_milliseconds)
    return *end_milliseconds;
  const int64_t last_step = steps.empty() ? 0 : steps.back().lastMillisecond();
  return last_step + kAfterwardsMilliseconds;
}

}  // namespace morvik_device::scenario
