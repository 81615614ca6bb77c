// A virtual machine on which everything that the host asks of its store, its network and its main queue can be
// watched, and can be sabotaged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kit/transport.h"
#include "kit/value.h"
#include "simulation/virtual_machine.h"

namespace morvik::proofs {

/// Is told what passes. All on the thread of the loop; none may call the host.
class MachineWatcher {
 public:
  virtual ~MachineWatcher() = default;
  /// The host hands over a request. `exchange` names it, from 1; a name is never used twice.
  virtual void requestStarts(uint64_t exchange, const kit::Request& request) = 0;
  /// Its answer, or what kept it away, is about to be handed to the core.
  virtual void handlerBegins(uint64_t exchange, const kit::TransportOutcome& outcome) = 0;
  virtual void handlerEnded(uint64_t exchange) = 0;
  /// A value is set in the store, in memory: what the turn wrote is committed later.
  virtual void valueSet(std::string_view key, const kit::Value& value) = 0;
  /// The store says something of itself, to be logged or not.
  virtual void storeSays(std::string_view /*line*/) {}
  /// A block is put off on the main queue, by the core.
  virtual void blockPostponed(double delay_seconds) = 0;
  /// A flush of the store on the disk: its calls of the disk come in between.
  virtual void flushBegins() {}
  virtual void flushEnded() {}
};

/// A value that is written later than it should be.
struct HeldWrite {
  std::string key = "nothing held";
  kit::Value value;
};

/// Stands between the host and the machine and does what no machine should, to see that it is found out. By itself it
/// does nothing.
class MachineSabotage {
 public:
  virtual ~MachineSabotage() = default;
  /// So many copies of the request start.
  virtual size_t copiesOf(const kit::Request&) { return 1; }
  virtual bool losesHandlerOf(const kit::Request&) { return false; }
  /// Whether what waits leaves although the user has asked to be forgotten meanwhile.
  virtual bool losesTheWishWhileRequestsWait() { return false; }
  /// Whether the handler gets an error in the place of the answer.
  virtual bool spoilsAnswerTo(const kit::Request&) { return false; }
  /// The host is about to call its store. Unlike the others this may call the host, as a thread of the app's could at
  /// that moment: what records, if Instance::mayRecordHere() says so.
  virtual void storeIsCalled() {}
  /// What is stored in the place of the value.
  virtual kit::Value stored(std::string_view, kit::Value value) { return value; }
  /// What is written behind the others in the place of the last of what is to survive together; nothing: that itself.
  virtual std::optional<HeldWrite> heldBack(const HeldWrite&) { return std::nullopt; }
  /// What is logged in the place of the line.
  virtual std::string logged(std::string_view line) { return std::string(line); }
  /// So often the block that is put off runs.
  virtual size_t timesPutOff(double) { return 1; }
};

/// `watcher` and `sabotage` outlive it; the latter may be null.
class WatchedMachine final : public simulation::VirtualMachine {
 public:
  WatchedMachine(simulation::VirtualMachineOptions options, MachineWatcher& watcher, MachineSabotage* sabotage);

  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override;
  std::unique_ptr<runtime::MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) override;
  std::unique_ptr<runtime::MachineTransport> makeTransport(runtime::TransportParts parts) override;

 private:
  std::unique_ptr<runtime::MachineStore> openStore(const std::string& folder, kit::LogSink& log);

  const bool has_disk_;
  MachineWatcher& watcher_;
  MachineSabotage& sabotage_;
  uint64_t last_exchange_ = 0;
};

}  // namespace morvik::proofs
