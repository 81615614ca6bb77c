// Misbehaviour on request: what the next answers of an endpoint do instead of arriving as they should.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/base/json.h"
#include "apps/service/http/http_message.h"

namespace morvik_service {

enum class BehaviourKind {
  kStatus,         ///< answers this HTTP status
  kDelay,          ///< answers as usual, late
  kCloseBefore,    ///< closes the connection; the events were not counted
  kCloseAfter,     ///< counts the events, then closes the connection
  kGarbage,        ///< answers 200 with bytes that are no JSON
  kTruncatedJson,  ///< answers 200 with the first half of the usual answer
  kNotObject,      ///< answers 200 with a JSON array
  kHugeBody,       ///< answers 200 with a JSON object of kHugeBodyBytes and more
  kJson            ///< answers 200 with the given JSON
};

/// Larger than any answer a device accepts (4 MiB).
inline constexpr std::size_t kHugeBodyBytes = std::size_t{5} * 1024 * 1024;
inline constexpr int kMaxBehaviourCount = 1000000;
inline constexpr std::chrono::milliseconds kMaxBehaviourDelay{600000};
/// Limits of the queue: entries, and bytes of the bodies that they keep.
inline constexpr std::size_t kMaxBehaviours = 256;
inline constexpr std::size_t kMaxBehaviourBytes = std::size_t{64} * 1024 * 1024;

struct Behaviour {
  std::string endpoint;  ///< "tracking", ...
  BehaviourKind kind = BehaviourKind::kStatus;
  int count = 1;  ///< answers still to spoil
  int status = 500;
  std::chrono::milliseconds delay{0};
  Json json;                        ///< of kJson
  std::optional<std::string> text;  ///< of kGarbage: these bytes instead of the usual ones
  bool count_events = false;        ///< whether a request answered so counts its events
};

/// Reads {"endpoint":"tracking","count":3,"kind":"status","status":500}. `endpoints` are the names that exist. Throws
/// Refusal 400 that names the member, what it may be and what it was.
Behaviour parseBehaviour(const Json& value, const std::vector<std::string>& endpoints);

/// The same form again.
Json describeBehaviour(const Behaviour& behaviour);

/// All kinds for a form to offer: [{"kind","own_member","required","counts_events"}]; "own_member" is "" for a kind
/// that needs to know nothing more.
Json behaviourKinds();

/// Throws Refusal 400 when one of the names is neither "" nor that of an endpoint, or a kind, that exists.
void requireBehaviourNames(const std::string& endpoint, const std::string& kind,
                           const std::vector<std::string>& endpoints);

/// What becomes of the usual answer.
HttpReply misbehave(const Behaviour& behaviour, HttpReply usual);

/// The behaviours that wait for their requests, in order of arrival. Not safe for several threads at once.
class Behaviours {
 public:
  /// Throws Refusal 409 when the queue is full.
  void add(Behaviour behaviour);

  /// The first behaviour for `endpoint`, used once; nothing when none waits.
  std::optional<Behaviour> take(std::string_view endpoint);

  void clear();

  /// Takes out all for this endpoint of this kind; an empty name stands for any.
  void remove(std::string_view endpoint, std::string_view kind);

  /// All that wait, as a JSON array.
  Json list() const;
  /// The same without the bodies that they give, which may be large.
  Json summaries() const;

 private:
  std::deque<Behaviour> waiting_;
  std::size_t kept_bytes_ = 0;
};

}  // namespace morvik_service
