// What has happened in a scenario, for the timeline and the expectations.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kit/value.h"
#include "testing/recording.h"
#include "testing/recording_log.h"
#include "testing/service_endpoint.h"
#include "testing/simulated_service.h"

namespace morvik_device::scenario {

/// Kept of each kind. If more happened, no expectation about that kind is met.
inline constexpr size_t kMaxKept = 1'000'000;

struct SentRequest {
  int64_t at_milliseconds = 0;
  morvik::testing::ServiceEndpoint endpoint = morvik::testing::ServiceEndpoint::kConversion;
  morvik::kit::Value payload;  ///< decrypted, wherever it arrived; absent if there is none
};

struct DelegateCall {
  int64_t at_milliseconds = 0;
  std::string selector;
  std::string module;  ///< "": the app
  morvik::kit::Array arguments;
};

struct WrittenLine {
  int64_t at_milliseconds = 0;
  int level = 0;
  morvik::testing::LogLine line;
};

struct History {
  morvik::testing::Recording<SentRequest> requests{kMaxKept};
  morvik::testing::Recording<DelegateCall> calls{kMaxKept};
  morvik::testing::Recording<WrittenLine> lines{kMaxKept};
};

/// One line of the timeline.
struct Happening {
  enum class Kind { kProcess, kApp, kRefused, kSession, kNetwork, kRequest, kAnswer, kCallback, kLog };

  int64_t at_milliseconds = 0;
  Kind kind = Kind::kApp;
  bool is_trouble = false;         ///< highlighted
  std::string text;                ///< for people
  morvik::kit::Dictionary fields;  ///< for machines
};

/// Takes what happens, in order.
class Observer {
 public:
  virtual ~Observer() = default;
  virtual void happened(const Happening& happening) = 0;
};

}  // namespace morvik_device::scenario
