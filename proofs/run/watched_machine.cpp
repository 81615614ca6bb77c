#include "proofs/run/watched_machine.h"

#include <utility>
#include <vector>

#include "host/store/sqlite_store.h"
#include "kit/continued_list.h"
#include "proofs/run/heard_lines.h"
#include "runtime/machine/passing_store.h"
#include "runtime/machine/passing_transport.h"

namespace morvik::proofs {
namespace {

MachineSabotage& noSabotage() {
  static MachineSabotage none;
  return none;
}

class WatchedStore final : public runtime::PassingStore {
 public:
  /// `log`: what the store says goes there.
  WatchedStore(std::unique_ptr<kit::LogSink> log, std::unique_ptr<runtime::MachineStore> store, MachineWatcher& watcher,
               MachineSabotage& sabotage)
      : PassingStore(*store), log_(std::move(log)), owned_(std::move(store)), watcher_(watcher), sabotage_(sabotage) {}

  kit::Value get(std::string_view key) const override {
    sabotage_.storeIsCalled();
    return store_.get(key);
  }
  void set(std::string_view key, kit::Value value) override {
    sabotage_.storeIsCalled();
    value = sabotage_.stored(key, std::move(value));
    watcher_.valueSet(key, value);
    store_.set(key, std::move(value));
  }
  void append(std::string_view key, kit::Value element) override {
    sabotage_.storeIsCalled();
    kit::MutableArray list(store_.get(key));
    list.append(element);
    kit::Value whole = sabotage_.stored(key, kit::Value(std::move(list)));
    watcher_.valueSet(key, whole);
    store_.set(key, std::move(whole));
  }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    sabotage_.storeIsCalled();
    set(key, kit::continuedList(before, store_.get(key), std::move(after)));
  }
  void setTogether(std::span<runtime::StoreWrite> writes) override {
    sabotage_.storeIsCalled();
    for (runtime::StoreWrite& write : writes) {
      write.value = sabotage_.stored(write.key, std::move(write.value));
      watcher_.valueSet(write.key, write.value);
    }
    if (writes.size() > 1) {
      if (auto held = sabotage_.heldBack({std::string(writes.back().key), writes.back().value})) {
        store_.setTogether(writes.first(writes.size() - 1));
        return store_.set(held->key, std::move(held->value));
      }
    }
    store_.setTogether(writes);
  }
  bool synchronize() override {
    sabotage_.storeIsCalled();
    return store_.synchronize();
  }
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override {
    const kit::Value set = value;
    const bool is_kept = store_.trySetAndSynchronize(key, std::move(value));
    if (is_kept)
      watcher_.valueSet(key, set);
    return is_kept;
  }
  bool commitTurn() override {
    sabotage_.storeIsCalled();
    return store_.commitTurn();
  }
  bool synchronizeUntold() override {
    sabotage_.storeIsCalled();
    return store_.synchronizeUntold();
  }

 private:
  const std::unique_ptr<kit::LogSink> log_;
  const std::unique_ptr<runtime::MachineStore> owned_;
  MachineWatcher& watcher_;
  MachineSabotage& sabotage_;
};

class WatchedLoop final : public runtime::MachineLoop {
 public:
  WatchedLoop(std::unique_ptr<runtime::MachineLoop> loop, MachineWatcher& watcher, MachineSabotage& sabotage)
      : loop_(std::move(loop)), watcher_(watcher), sabotage_(sabotage) {}

  void setFrame(runtime::TurnFrame frame) override { loop_->setFrame(std::move(frame)); }
  std::optional<kit::Error> open() override { return loop_->open(); }
  bool drain(std::chrono::steady_clock::time_point deadline) override { return loop_->drain(deadline); }
  void cease() override { loop_->cease(); }
  bool waitUntilIdle(std::chrono::steady_clock::time_point deadline) override { return loop_->waitUntilIdle(deadline); }
  bool stop() override { return loop_->stop(); }
  void letGo() override { loop_->letGo(); }
  void async(kit::Block block) override { loop_->async(std::move(block)); }
  void after(double delay_seconds, kit::Block block) override {
    for (size_t times = sabotage_.timesPutOff(delay_seconds); times > 0; --times) {
      watcher_.blockPostponed(delay_seconds);
      loop_->after(delay_seconds, block);
    }
  }
  TimerKey schedule(double delay_seconds, kit::Block block) override {
    return loop_->schedule(delay_seconds, std::move(block));
  }
  void cancel(TimerKey timer) override { loop_->cancel(timer); }
  void runOnMain(kit::Block block) override { loop_->runOnMain(std::move(block)); }
  void afterThisTurn(kit::Block block) override { loop_->afterThisTurn(std::move(block)); }
  bool isMainThread() const override { return loop_->isMainThread(); }
  bool isInTurn() const override { return loop_->isInTurn(); }
  runtime::MainLoopCounts counts() const override { return loop_->counts(); }
  int pollDescriptor() const override { return loop_->pollDescriptor(); }
  int pollTimeoutMilliseconds() const override { return loop_->pollTimeoutMilliseconds(); }
  void dispatch() override { loop_->dispatch(); }
  bool canPump() const override { return loop_->canPump(); }
  void pumpFor(double max_seconds, const std::function<bool()>& is_done) override {
    loop_->pumpFor(max_seconds, is_done);
  }
  bool runWithin(double max_seconds, kit::Block block) override {
    return loop_->runWithin(max_seconds, std::move(block));
  }

 private:
  const std::unique_ptr<runtime::MachineLoop> loop_;
  MachineWatcher& watcher_;
  MachineSabotage& sabotage_;
};

class WatchedTransport final : public runtime::PassingTransport {
 public:
  WatchedTransport(std::unique_ptr<runtime::MachineTransport> transport, uint64_t& last_exchange,
                   MachineWatcher& watcher, MachineSabotage& sabotage)
      : PassingTransport(*transport),
        owned_(std::move(transport)),
        last_exchange_(last_exchange),
        watcher_(watcher),
        sabotage_(sabotage) {}

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    const size_t copies = sabotage_.copiesOf(request);
    const bool is_lost = sabotage_.losesHandlerOf(request);
    const bool is_spoiled = sabotage_.spoilsAnswerTo(request);
    for (size_t copy = 0; copy < copies; ++copy) {
      const uint64_t exchange = ++last_exchange_;
      watcher_.requestStarts(exchange, request);
      transport_.start(request, [this, exchange, is_lost, is_spoiled, copy, handler](kit::TransportOutcome outcome) {
        if (is_lost)
          return;
        if (is_spoiled)
          outcome = {.response = std::nullopt, .error = kit::Error{"spoiled"}};
        watcher_.handlerBegins(exchange, outcome);
        if (copy == 0)
          handler(std::move(outcome));
        watcher_.handlerEnded(exchange);
      });
    }
  }

 private:
  const std::unique_ptr<runtime::MachineTransport> owned_;
  uint64_t& last_exchange_;
  MachineWatcher& watcher_;
  MachineSabotage& sabotage_;
};

}  // namespace

WatchedMachine::WatchedMachine(simulation::VirtualMachineOptions options, MachineWatcher& watcher,
                               MachineSabotage* sabotage)
    : simulation::VirtualMachine(options),
      has_disk_(options.disk != nullptr),
      watcher_(watcher),
      sabotage_(sabotage != nullptr ? *sabotage : noSabotage()) {}

std::unique_ptr<runtime::MachineStore> WatchedMachine::makeStore(const std::string& folder, kit::LogSink& log) {
  auto watched =
      std::make_unique<HeardLines>(log, [&watcher = watcher_](std::string_view text) { watcher.storeSays(text); });
  auto made = openStore(folder, *watched);
  return std::make_unique<WatchedStore>(std::move(watched), std::move(made), watcher_, sabotage_);
}

std::unique_ptr<runtime::MachineStore> WatchedMachine::openStore(const std::string& folder, kit::LogSink& log) {
  if (!has_disk_)
    return simulation::VirtualMachine::makeStore(folder, log);
  host::SqliteStoreOptions options = storeOptions();
  options.make_flusher = [this, make = options.make_flusher](host::StoreFlusher::Flush flush,
                                                             std::chrono::milliseconds delay) {
    return make(
        [this, flush = std::move(flush)](host::StoreFlusher::Urgency urgency) {
          watcher_.flushBegins();
          flush(urgency);
          watcher_.flushEnded();
        },
        delay);
  };
  return std::make_unique<host::SqliteStore>(std::move(options), log);
}

std::unique_ptr<runtime::MachineLoop> WatchedMachine::makeMainLoop(MainQueueMode mode, const services::Logger& logger) {
  return std::make_unique<WatchedLoop>(simulation::VirtualMachine::makeMainLoop(mode, logger), watcher_, sabotage_);
}

std::unique_ptr<runtime::MachineTransport> WatchedMachine::makeTransport(runtime::TransportParts parts) {
  if (sabotage_.losesTheWishWhileRequestsWait())
    parts.is_forgotten = [] { return false; };
  return std::make_unique<WatchedTransport>(simulation::VirtualMachine::makeTransport(std::move(parts)), last_exchange_,
                                            watcher_, sabotage_);
}

}  // namespace morvik::proofs
