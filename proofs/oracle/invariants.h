// What must hold at every step of a run, whatever happens: each is an invariant with a name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/value.h"
#include "morvik/ledger.h"
#include "morvik/recorded.h"
#include "proofs/oracle/expected_records.h"
#include "testing/service_endpoint.h"

namespace morvik::proofs {

/// A request between its start and the end of its handler.
struct RunExchange {
  std::optional<testing::ServiceEndpoint> endpoint;
  std::string url;
  std::string body;
  std::vector<RecordNumber> records;  ///< that it carries
  double started_at = 0;
  std::optional<double> left_at;
  double timeout_seconds = 0;
  /// Its answer deletes what it carries, and that alone: no other batch was under way, and no session started.
  bool deletes_its_own = true;
  bool is_accepted = false;
  bool is_one_large = false;  ///< a batch of one activity that may be given up as too large
  /// It was made by a process that did not know its store, nor who it is.
  bool was_made_while_unavailable = false;
};

/// What is known of a run, kept by the tracker.
struct RunFacts {
  double now = 0;
  ExpectedRecords records;
  std::map<uint64_t, RunExchange> exchanges;  ///< of the process that runs, by name
  uint64_t handling = 0;                      ///< the exchange whose handler runs; 0: none
  bool is_alive = false;
  bool is_forgotten = false;           ///< the process says so
  bool wants_to_be_forgotten = false;  ///< the app asked for it last, and that outlived every death since
  bool is_unavailable = false;         ///< the file could not be read at the start, and is still not
  bool wish_is_in_its_file = false;    ///< and that outlived every death since
  bool is_next_to_newer = false;       ///< a newer program has used the store, which is to stay as it is
  bool knows_its_store = true;         ///< false: the file could not be read at the start, and has not recovered
  std::optional<Ledger> ledger;        ///< of this step
  uint64_t installs = 0;               ///< that the service attributed
  bool is_all_well = false;  ///< and has been for some sessions, of an install that may send all that it records

  size_t underWay(testing::ServiceEndpoint endpoint) const;
  const RunExchange* handled() const;
};

/// Hears what happens and complains. By itself it hears nothing.
class Invariant {
 public:
  using Complain = std::function<void(const char* invariant, const std::string& text)>;
  Invariant(const RunFacts& facts, Complain complain) : facts_(facts), complain_(std::move(complain)) {}
  virtual ~Invariant() = default;
  Invariant(const Invariant&) = delete;
  Invariant& operator=(const Invariant&) = delete;

  virtual const char* name() const = 0;

  virtual void processBegins() {}
  virtual void processEnds() {}
  virtual void sessionRequested() {}
  /// The loop ran dry: what was asked for is done.
  virtual void loopIdle() {}
  /// It stands in the facts already.
  virtual void requestStarts(const RunExchange&) {}
  /// It reaches the network now; it may have waited since it started.
  virtual void requestLeaves(const RunExchange&) {}
  /// `answer`: what the core takes for a success; nothing: a failure. Before the handler.
  virtual void exchangeEnds(const RunExchange&, const std::optional<kit::Value>&) {}
  virtual void valueSet(std::string_view, const kit::Value&) {}
  virtual void blockPostponed(double) {}
  virtual void lineLogged(std::string_view) {}
  /// What the app was told of what it recorded, and what is so.
  virtual void answered(Recorded /*told*/, Recorded /*rightly*/) {}
  virtual void storeFileChanges(std::string_view /*path*/) {}
  /// After every step; the facts are those of its end.
  virtual void stepEnds() {}

 protected:
  const RunFacts& facts() const { return facts_; }
  void complain(const std::string& text) const { complain_(name(), text); }

 private:
  const RunFacts& facts_;
  const Complain complain_;
};

/// Names, as the figures list them and a complaint begins with.
inline constexpr const char* kLedgerIsSound = "the ledger is sound";
inline constexpr const char* kLedgerAgrees = "the ledger agrees with what was seen";
inline constexpr const char* kNothingIsLost = "nothing is lost but by a rule";
inline constexpr const char* kStoreHoldsEachOnce = "the store holds what was recorded, each once";
inline constexpr const char* kOneBatchPerSlot = "one batch for each time the slot is freed";
inline constexpr const char* kSentOnce = "nothing is sent again that was accepted";
inline constexpr const char* kForgottenIsSilent = "of the forgotten only the erasure leaves";
inline constexpr const char* kOneClickPerKey = "one click for a key";
inline constexpr const char* kCountsInBounds = "failure counts are within their bounds";
inline constexpr const char* kRetriesInBounds = "nine retries and one re-fetch between two successes";
inline constexpr const char* kRequestsReturn = "every request returns";
inline constexpr const char* kAllGoesOut = "what waits goes out once all is well";
inline constexpr const char* kWishesAreKept = "a wish outlives the process";
inline constexpr const char* kLinesAreKnown = "every line of the log is known";
inline constexpr const char* kAnswersAreTrue = "the app is told what becomes of it";
inline constexpr const char* kNewerStoreStays = "a store of a newer version stays as it is";
inline constexpr const char* kOneDevice = "the device stays the same one";

/// Retries of a conversion that may be scheduled between two successes of one process, and re-fetches.
inline constexpr uint64_t kMaxRetries = 9;
inline constexpr uint64_t kMaxRefetches = 1;

/// One of each. `facts` outlives them.
std::vector<std::unique_ptr<Invariant>> makeInvariants(const RunFacts& facts, const Invariant::Complain& complain);

}  // namespace morvik::proofs
