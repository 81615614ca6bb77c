// The service of a story, and the network before it: healthy, but where the story says otherwise.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "apps/device/scenario/history.h"
#include "apps/device/scenario/scenario.h"
#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "simulation/dice.h"
#include "testing/fake_crypto.h"
#include "testing/scripted_transport.h"
#include "testing/simulated_service.h"
#include "testing/virtual_loop.h"

namespace morvik_device::scenario {

class ScriptedService {
 public:
  /// The arguments outlive the service. `now_milliseconds` is the scenario's time; all randomness comes from `seed`.
  ScriptedService(const Scenario& scenario, uint64_t seed, morvik::testing::VirtualLoop& loop,
                  std::function<int64_t()> now_milliseconds, History& history, Observer& observer);

  /// Answers a request that leaves the device.
  morvik::testing::Answer answer(const morvik::kit::Request& request);

  /// Sets the state of the network; null: it works.
  void setPhase(const NetworkPhase* phase);
  /// The process has ended: pending answers are discarded.
  void processEnded() { ++process_; }
  bool isOffline() const { return phase_ != nullptr && phase_->kind == NetworkPhase::Kind::kOffline; }

  /// Each event that was counted, once.
  std::vector<morvik::kit::Value> events() const { return service_.events(); }
  size_t distinctEvents() const { return service_.distinctEvents(); }

 private:
  using ServedRequest = morvik::testing::ServedRequest;
  /// An answer and its time.
  struct Outcome {
    morvik::testing::Answer answer;
    std::string text;
    morvik::kit::MutableDictionary fields;
    bool is_trouble = false;
    bool never = false;  ///< no answer; the request times out
    int64_t delay_milliseconds = 0;
  };

  morvik::kit::Date now() const;
  /// The rule for the next request to the endpoint; the usual one if there is no endpoint.
  AnswerRule nextRule(std::optional<morvik::testing::ServiceEndpoint> endpoint);
  int64_t chosen(TimeRange range);
  ServedRequest receive(const morvik::kit::Request& request, const AnswerRule& rule);
  Outcome outcomeOfPhase() const;
  Outcome outcomeOf(const AnswerRule& rule, const ServedRequest& served);
  Outcome usualOutcome(const AnswerRule& rule, const ServedRequest& served);
  static Outcome failure(const std::string& error);
  static Outcome bodyOutcome(int status, const std::string& body);
  void noteRequest(const ServedRequest& served, const morvik::kit::Request& request, bool is_received);
  void noteAnswer(Outcome outcome, const std::string& name, const morvik::kit::Request& request);

  const Scenario& scenario_;
  morvik::testing::VirtualLoop& loop_;
  const std::function<int64_t()> now_milliseconds_;
  History& history_;
  Observer& observer_;
  const NetworkPhase* phase_ = nullptr;
  uint64_t process_ = 0;  // number of ended processes

  const morvik::host::OpensslCipher cipher_;
  const morvik::host::ZlibCompressor compressor_;
  morvik::testing::SeededRandom sealing_random_;  // the tools require a source, although the service never seals
  morvik::simulation::Dice dice_;
  morvik::testing::SimulatedService service_;
  struct Position {
    size_t rule = 0;
    size_t given = 0;
  };
  std::array<Position, morvik::testing::kServiceEndpoints.size()> positions_{};
};

}  // namespace morvik_device::scenario
