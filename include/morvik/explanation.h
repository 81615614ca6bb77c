// What became of one event. A plain value; MorvikCore::explain() returns it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace morvik {

struct Explanation {
  using Time = std::chrono::system_clock::time_point;

  enum class State : uint8_t {
    kNotAnId,    ///< the text has not the form of an event id
    kUnknown,    ///< neither stored nor in one of the latest exchanges
    kPending,    ///< in the store, and sent until the service has it
    kDelivered,  ///< the service confirmed that it has it
    kGivenUp,    ///< `reason` says why
    kUnclear     ///< no longer stored, and the answer to the latest request with it is not known, or not yet
  };

  /// A request that carried the event. Times are the device's, in UTC.
  struct Exchange {
    Time begun{};
    std::optional<Time> left;   ///< when it went to the network; empty if it did not, until it ended, or if unknown
    std::optional<Time> ended;  ///< empty while it is under way, and if the process ended first
    std::string endpoint;       ///< its path
    /// "under way", "accepted", "not accepted", "failed", "not sent", "abandoned" (the kit was stopped first) or
    /// "answer unknown" (the process ended first).
    std::string outcome;
    int http_status = 0;  ///< 0: there was no answer
    std::string error;    ///< why it failed, at most 200 bytes; "" if it did not
  };

  std::string event_id;
  State state = State::kUnknown;
  std::optional<Time> recorded;     ///< when; empty if neither the record nor the id says so
  std::vector<Exchange> exchanges;  ///< those that are still known, oldest first
  std::string reason;               ///< why it was given up, in the words of the ledger; "" if it was not
  std::string sentence;             ///< all of this for people, or what is wrong with the id
};

}  // namespace morvik
