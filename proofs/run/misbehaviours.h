// How a service, and what lies between it and a device, treats the requests of a simulation.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "kit/transport.h"
#include "simulation/dice.h"
#include "testing/simulated_service.h"

namespace morvik::proofs {

enum class Misbehaviour : uint8_t {
  kNone,
  kRefuses,       ///< a bad status
  kRedirects,     ///< 301, 302, 304, 307: not followed
  kClosesBefore,  ///< the connection, before it took the request in
  kClosesAfter,   ///< the same, afterwards
  kSilentBefore,  ///< nothing ever comes
  kSilentAfter,   ///< the same, and the request was taken in
  kSlow,          ///< an answer in good order, up to a minute and a half late
  kGarbage,       ///< 200 and no JSON
  kTruncated,     ///< half of the usual answer
  kNoObject,      ///< JSON, but no object
  kNullBody,      ///< the JSON null
  kEmptyBody,     ///< 204
  kEmptyObject,   ///< {}
  kHuge,          ///< more than a device takes
  kWrongTypes,    ///< members of other types
  kNullMembers,
  kOddNumbers,  ///< out of all range
  kSaysNo,      ///< a good status, and "no"
  kTwice,       ///< a proxy that sends the request twice
  kOtherKey,    ///< a click's answer that names another click
};
inline constexpr size_t kMisbehaviours = 21;

struct MisbehaviourRow {
  Misbehaviour misbehaviour;
  const char* name;
  double weight;
};
/// All of them, with how often each comes among them.
std::span<const MisbehaviourRow> misbehaviours();
const char* nameOf(Misbehaviour misbehaviour);
Misbehaviour drawMisbehaviour(simulation::Dice& dice);

/// A misbehaviour towards one request, with what is left open about it.
struct Treatment {
  Misbehaviour misbehaviour = Misbehaviour::kNone;
  bool arrives = true;  ///< the service takes the request in
  double delay_seconds = 0;
};
Treatment drawTreatment(Misbehaviour misbehaviour, simulation::Dice& dice);
/// For a script: after always the same delay, and what may arrive does.
Treatment steadyTreatment(Misbehaviour misbehaviour);
inline constexpr double kSteadyDelaySeconds = 0.2;

/// What came of a request.
struct TreatedRequest {
  testing::ServedRequest served;
  testing::Answer answer = testing::Answer::silence();
};

/// `dice` draws what the answer says; `other_keys`: what kOtherKey draws from.
TreatedRequest treat(const kit::Request& request, const Treatment& treatment, testing::SimulatedService& service,
                     simulation::Dice& dice, std::span<const int64_t> other_keys);

}  // namespace morvik::proofs
