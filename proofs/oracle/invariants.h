// What must hold at every step of a run: each is an invariant with a name.
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
  /// Its answer deletes exactly what it carries: no other batch was under way, and no session started.
  bool deletes_its_own = true;
  bool is_accepted = false;
  bool is_one_large = false;  ///< a batch of one activity that may be given up as too large
  /// Made by a process that did not know its store, nor its own identity.
  bool was_made_while_unavailable = false;
};

/// The facts of a run, kept by the tracker.
struct RunFacts {
  double now = 0;
  ExpectedRecords records;
  std::map<uint64_t, RunExchange> exchanges;  ///< of the running process, by name
  uint64_t handling = 0;                      ///< the exchange whose handler is running; 0: none
  bool is_alive = false;
  bool is_forgotten = false;           ///< according to the process
  bool wants_to_be_forgotten = false;  ///< the app's latest wish, and it survived every death since
  bool is_unavailable = false;         ///< the file could not be read at the start, and still cannot
  bool has_withdrawn = false;          ///< the app's latest wish is none, and that survived every death since
  bool wish_is_in_its_file = false;    ///< and it survived every death since
  bool is_next_to_newer = false;       ///< a newer program has used the store, which must stay as it is
  bool knows_its_store = true;         ///< false: the file could not be read at the start, and has not recovered
  std::optional<Ledger> ledger;        ///< at this step
  uint64_t installs = 0;               ///< attributed by the service
  bool is_all_well = false;            ///< for some sessions already, and the install may send everything it records

  size_t underWay(testing::ServiceEndpoint endpoint) const;
  const RunExchange* handled() const;
};

/// Receives events and reports complaints. It observes nothing by itself.
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
  /// The loop is idle: everything requested is done.
  virtual void loopIdle() {}
  /// The facts include it already.
  virtual void requestStarts(const RunExchange&) {}
  /// It reaches the network now; it may have waited since its start.
  virtual void requestLeaves(const RunExchange&) {}
  /// `answer`: the answer if the core counts it as a success; nothing: a failure. Called before the handler.
  virtual void exchangeEnds(const RunExchange&, const std::optional<kit::Value>&) {}
  virtual void valueSet(std::string_view, const kit::Value&) {}
  virtual void blockPostponed(double) {}
  virtual void lineLogged(std::string_view) {}
  /// What the app was told about a record, and what is true.
  virtual void answered(Recorded /*told*/, Recorded /*rightly*/) {}
  virtual void storeFileChanges(std::string_view /*path*/) {}
  /// After every step, with the facts at its end.
  virtual void stepEnds() {}

 protected:
  const RunFacts& facts() const { return facts_; }
  void complain(const std::string& text) const { complain_(name(), text); }

 private:
  const RunFacts& facts_;
  const Complain complain_;
};

/// Names, as the figures list them and complaints begin with.
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

/// Limits for a conversion's scheduled retries, and re-fetches, between two successes of one process.
inline constexpr uint64_t kMaxRetries = 9;
inline constexpr uint64_t kMaxRefetches = 1;

/// Of all of them, and of a run that ended early because something was thrown.
std::vector<std::string> complaintNames();
inline constexpr const char* kBroken = "broken";
/// Complained of by the service.
inline constexpr const char* kRequestsAreGood = "the service understands what comes";

/// One of each. `facts` must outlive them.
std::vector<std::unique_ptr<Invariant>> makeInvariants(const RunFacts& facts, const Invariant::Complain& complain);

}  // namespace morvik::proofs
