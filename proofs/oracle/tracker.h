// Watches the traffic between a device and its machine, and keeps the facts of the run: what was recorded, which
// request carries it, and which rule may remove it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kit/transport.h"
#include "kit/value.h"
#include "proofs/oracle/invariants.h"
#include "testing/simulated_service.h"

namespace morvik::proofs {

/// For one run. Independent of the kit's own ledger.
class Tracker {
 public:
  /// `reader` opens requests without counting them, and must outlive the tracker. `when_committed` takes a block and
  /// runs it once the current turn is committed; never if a death comes first.
  Tracker(testing::SimulatedService& reader, std::function<void(std::function<void()>)> when_committed);

  RunFacts facts;

  /// The app recorded something under a new name; it is kept once its turn is committed. `key`: for clicks.
  RecordNumber addRecord(RecordKind kind, const std::string& name);
  /// Like addRecord(), for one of the three demographic values ("age=17"). Earlier values of the same property may then
  /// be removed as replaced; without `is_pending`, as withdrawn, and nothing is recorded.
  std::optional<RecordNumber> setDemographic(const std::string& name, bool is_pending, const std::string& property);
  /// The device's description has no identifier: no payload of demographics says whose they are.
  void hasNoIdentifier() { has_identifier_ = false; }

  // Events, while the facts' clock is right.
  /// A session may start: batches under way then delete nothing any more.
  void sessionRequested();
  void requestStarts(uint64_t exchange, const kit::Request& request, bool is_in_background);
  /// Null if its start was not seen. Valid until its handler has ended.
  const RunExchange* requestLeaves(const kit::Request& request);
  /// The service has the request's content.
  void arrives(const RunExchange& exchange);
  /// `is_not_sent`: it never left, and has no answer.
  void exchangeEnds(uint64_t exchange, bool is_not_sent, const std::optional<kit::Value>& answer);
  void handlerEnded(uint64_t exchange);
  void valueSet(std::string_view key, const kit::Value& value);

  using Read = std::function<kit::Value(std::string_view key)>;
  /// A process starts; `read` reads its store.
  void processBegins(const Read& read);
  /// What was held in memory since `since` is written only now.
  void writeLate(double since);
  /// The file recovered: none of its values was set by the process.
  void storeRecovered(const Read& read);
  /// Compares what is stored now; returns what should not be there.
  std::vector<std::string> look(const Read& read);
  /// The crash reports that wait outside the store.
  void lookAtTheShelf(const kit::Array& reports);
  void processEnds(double undone_from, double undone_from_of_kept, bool power_lost);
  /// What survived the latest deaths is known: the facts have the ledger's figures.
  void settle();

 private:
  void keepWhenCommitted(RecordNumber number);
  ExpectedRecords::Unexpected lookAtDemographics();
  ExpectedRecords::Unexpected lookAt(RecordKind kind, std::string_view key, const kit::Value& list);
  void noteActivities(const kit::Value& list);
  void noteSentKeys(const kit::Value& keys);
  void noteSessionEnd();
  void clickStarts();
  void permitThoseThatWaitToBeHandled(const RunExchange& exchange);
  void clickEnds(const RunExchange& exchange, const std::optional<kit::Value>& answer);
  std::vector<RecordNumber> namesIn(testing::ServiceEndpoint endpoint, const kit::Value& payload);
  void permitAll(const RunExchange& exchange, RecordKind kind, RemovalReason reason);

  testing::SimulatedService& reader_;
  const std::function<void(std::function<void()>)> when_committed_;
  std::unordered_map<std::string, RecordNumber> activity_by_id_;
  struct Looked {
    kit::Value list;
    ExpectedRecords::Unexpected unexpected;
  };
  std::unordered_map<std::string, Looked> looked_at_;            ///< by key, what was stored at the latest look
  std::map<std::string, kit::Value, std::less<>> demographics_;  ///< the stored ones, by key
  kit::Value failure_counts_;
  struct Ended {
    double kept_from = kNever;  ///< what its handler did
    std::vector<RecordNumber> records;
  };
  std::vector<Ended> ended_;  ///< exchanges of all processes
  bool has_identifier_ = true;
};

}  // namespace morvik::proofs
