// Misbehaviour on request: how the next answers of an endpoint go wrong.
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
  kGarbage,        ///< answers 200 with bytes that are not JSON
  kTruncatedJson,  ///< answers 200 with the first half of the usual answer
  kNotObject,      ///< answers 200 with a JSON array
  kHugeBody,       ///< answers 200 with a JSON object of kHugeBodyBytes and more
  kJson            ///< answers 200 with the given JSON
};

/// Larger than any answer a device accepts (4 MiB).
inline constexpr std::size_t kHugeBodyBytes = std::size_t{5} * 1024 * 1024;
inline constexpr int kMaxBehaviourCount = 1000000;
inline constexpr std::chrono::milliseconds kMaxBehaviourDelay{600000};
/// Limits of the queue: entries, and total bytes of their bodies.
inline constexpr std::size_t kMaxBehaviours = 256;
inline constexpr std::size_t kMaxBehaviourBytes = std::size_t{64} * 1024 * 1024;

struct Behaviour {
  std::string endpoint;  ///< "tracking", ...
  BehaviourKind kind = BehaviourKind::kStatus;
  int count = 1;  ///< answers still to be changed
  int status = 500;
  std::chrono::milliseconds delay{0};
  Json json;                        ///< of kJson
  std::optional<std::string> text;  ///< of kGarbage: these bytes instead of the usual ones
  bool count_events = false;        ///< whether the events of such a request are counted
};

/// Reads {"endpoint":"tracking","count":3,"kind":"status","status":500}. `endpoints` are the names that exist. Throws
/// Refusal 400 that names the member, its value and the values allowed.
Behaviour parseBehaviour(const Json& value, const std::vector<std::string>& endpoints);

/// The reverse.
Json describeBehaviour(const Behaviour& behaviour);

/// All kinds for a form to offer: [{"kind","own_member","required","counts_events"}]; "own_member" is "" for a kind
/// without one.
Json behaviourKinds();

/// Throws Refusal 400 if one of the names is neither "" nor that of an existing endpoint or kind.
void requireBehaviourNames(const std::string& endpoint, const std::string& kind,
                           const std::vector<std::string>& endpoints);

/// The usual answer, changed by the behaviour.
HttpReply misbehave(const Behaviour& behaviour, HttpReply usual);

/// The pending behaviours, in order of arrival. Not thread-safe.
class Behaviours {
 public:
  /// Throws Refusal 409 if the queue is full.
  void add(Behaviour behaviour);

  /// The first pending behaviour for `endpoint`, used once; nothing if there is none.
  std::optional<Behaviour> take(std::string_view endpoint);

  void clear();

  /// Removes all of this kind for this endpoint; an empty name means any.
  void remove(std::string_view endpoint, std::string_view kind);

  /// All pending ones, as a JSON array.
  Json list() const;
  /// The same without their bodies, which may be large.
  Json summaries() const;

 private:
  std::deque<Behaviour> waiting_;
  std::size_t kept_bytes_ = 0;
};

}  // namespace morvik_service
