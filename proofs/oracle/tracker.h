// Sees what passes between a device and its machine, and keeps the facts of its run: what was recorded, which request
// carries it, and which rule may let it go.
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

/// Of one run. Nothing of it depends on what the kit's own ledger says.
class Tracker {
 public:
  /// `reader` opens what leaves, counts nothing, and outlives the tracker. `when_committed`: hands a block over that
  /// runs once the running turn is committed, and never if a death comes first.
  Tracker(testing::SimulatedService& reader, std::function<void(std::function<void()>)> when_committed);

  RunFacts facts;

  /// The app recorded something under a new name; it is kept once its turn is committed. `key`: of a click.
  RecordNumber addRecord(RecordKind kind, const std::string& name);
  /// The same, of one of the three demographic values ("age=17"): it takes the place of `before`, if that is pending.
  void setDemographic(const std::string& name, bool is_pending, const std::string& property);
  /// The device's description names nobody: no payload of demographics says whose they are.
  void hasNoIdentifier() { has_identifier_ = false; }

  // What passes; the facts' clock is right.
  /// A session starts, maybe: batches that are under way delete nothing any more.
  void sessionRequested();
  void requestStarts(uint64_t exchange, const kit::Request& request, bool is_in_background);
  /// Null when it was not seen to start. Valid until its handler ended.
  const RunExchange* requestLeaves(const kit::Request& request);
  /// The service has what it carries.
  void arrives(const RunExchange& exchange);
  /// `is_not_sent`: it never left, and has no answer.
  void exchangeEnds(uint64_t exchange, bool is_not_sent, const std::optional<kit::Value>& answer);
  void handlerEnded(uint64_t exchange);
  void valueSet(std::string_view key, const kit::Value& value);

  using Read = std::function<kit::Value(std::string_view key)>;
  /// A process begins: what it finds in its store.
  void processBegins(const Read& read);
  /// What was held in memory since then is written only now.
  void writeLate(double since);
  /// The file recovered: nothing of it was set.
  void storeRecovered(const Read& read);
  /// What is stored at this moment. Tells what should not be there.
  std::vector<std::string> look(const Read& read);
  /// The crash reports that wait outside the store.
  void lookAtTheShelf(const kit::Array& reports);
  void processEnds(double undone_from, bool power_lost);
  /// It is known what outlived the latest deaths: the ledger's figures stand in the facts.
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
  std::map<std::string, kit::Value, std::less<>> demographics_;  ///< that are stored, by key
  kit::Value failure_counts_;
  struct Ended {
    double kept_from = kNever;  ///< what its handler did
    std::vector<RecordNumber> records;
  };
  std::vector<Ended> ended_;  ///< exchanges, of all processes
  bool has_identifier_ = true;
};

}  // namespace morvik::proofs
