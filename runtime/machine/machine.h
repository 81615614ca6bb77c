// What the kit runs on: queues, clock, store, network and the few facts of a machine. The system is one machine
// (system_machine.h); one with virtual time and a scripted network is another.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "kit/clock.h"
#include "kit/crash.h"
#include "kit/crypto.h"
#include "kit/error.h"
#include "kit/json_codec.h"
#include "kit/key_value_store.h"
#include "kit/log.h"
#include "kit/queues.h"
#include "kit/stop_request.h"
#include "kit/threads.h"
#include "kit/transport.h"
#include "kit/value.h"
#include "morvik/start_options.h"
#include "runtime/crash/crash_reporting.h"
#include "runtime/machine/turn_frame.h"
#include "runtime/machine/turn_gate.h"
#include "services/log.h"

namespace morvik::services {
class MorvikGVUserDefaults;
}

namespace morvik::runtime {

/// A delay of at most this is work postponed by a session end; a longer one is a retry.
inline constexpr double kShortDelaySeconds = 1.0;

/// What waits on the main queue.
struct MainLoopCounts {
  size_t blocks = 0;         ///< due blocks; without the running one
  size_t short_timers = 0;   ///< blocks delayed by at most kShortDelaySeconds
  size_t longer_timers = 0;  ///< blocks delayed by more
};

/// The main queue and what runs it. One block is one turn, run inside the frame, which commits its writes and lets its
/// requests leave. After the frame, blocks of afterThisTurn() run. An exception of a block ends there, with a log line.
class MachineLoop : public kit::MainQueue {
 public:
  /// Identifies a timer of schedule(); never reused.
  using TimerKey = std::pair<uint64_t, uint64_t>;

  /// Runs around every turn, on the main thread. Set it before open().
  virtual void setFrame(TurnFrame frame) = 0;
  /// Begins to run turns; earlier blocks wait until now. Once. An error says what the system refused.
  virtual std::optional<kit::Error> open() = 0;
  /// Runs the blocks that are due now, each as a turn, and returns when they are done, or with false at `deadline`. A
  /// pumped loop runs them here, on its thread; on any other thread it returns false at once. Not from within a turn.
  virtual bool drain(std::chrono::steady_clock::time_point deadline) = 0;
  /// No further turn begins; waiting blocks never run, and later ones are dropped. Any thread, also within a turn;
  /// waits for nothing.
  virtual void cease() = 0;
  /// Waits, without a block of its own, until no turn runs, or until `deadline`: then false. Not within a turn.
  virtual bool waitUntilIdle(std::chrono::steady_clock::time_point deadline) = 0;
  /// Ends as cease() does, waits for the running turn and destroys waiting blocks. Any thread. Within a turn it does
  /// nothing and returns false.
  virtual bool stop() = 0;
  /// For a loop that will never be destroyed, after cease(): its thread ends by itself, and nobody waits for it. Any
  /// thread, also within a turn; does not block. Not at the same time as stop().
  virtual void letGo() = 0;

  /// As after(), for the kit's own timers: can be cancelled and is not counted. Any thread.
  virtual TimerKey schedule(double delay_seconds, kit::Block block) = 0;
  /// Drops the timer's block if it still waits; a block that is already due runs. Any thread.
  virtual void cancel(TimerKey timer) = 0;
  /// Runs `block` at once on the main thread (within the running turn, else as a turn of its own); posts it from any
  /// other thread.
  virtual void runOnMain(kit::Block block) = 0;
  /// Runs `block` after the running turn's commit and before the next turn. From within a turn only.
  virtual void afterThisTurn(kit::Block block) = 0;
  /// True on the thread that runs the turns. Any thread.
  virtual bool isMainThread() const = 0;
  /// True within a turn, on its thread.
  virtual bool isInTurn() const = 0;
  /// Any thread.
  virtual MainLoopCounts counts() const = 0;

  // For a pumped loop, on its thread; else -1, -1 and no effect.
  virtual int pollDescriptor() const = 0;
  virtual int pollTimeoutMilliseconds() const = 0;
  virtual void dispatch() = 0;
  /// Whether pumpFor() works: on the main thread of a pumped loop, outside of a turn. Any thread.
  virtual bool canPump() const = 0;
  /// Waits for events and dispatches them until `is_done`, which is asked between turns, or until the time is up; no
  /// turn begins after that.
  virtual void pumpFor(double max_seconds, const std::function<bool()>& is_done) = 0;
  /// Runs `block` as a turn, at once on the main thread, and returns when it is done. False: it did not begin in time,
  /// or the loop runs no more turns; then it never runs. Any thread, outside of a turn.
  virtual bool runWithin(double max_seconds, kit::Block block) = 0;
};

/// The background queue. Blocks run one after the other, in order, each inside the frame. An exception of a block ends
/// there, with a log line.
class MachineBackground : public kit::BackgroundQueue {
 public:
  /// Runs around every block. Set it before the first block.
  virtual void setFrame(TurnFrame frame) = 0;
  /// Called, where the blocks run, each time the last waiting block is done and no longer counted. Must not throw. Set
  /// it before the first block.
  virtual void setWhenIdle(kit::Block hook) = 0;
  /// Blocks that wait or run, including their frame. Any thread.
  virtual size_t pending() const = 0;
  /// True within a block, on its thread.
  virtual bool isInBlock() const = 0;
  /// Waits until no block waits or runs (after cease(): until none runs), or until `deadline`: then false. Not from
  /// within a block.
  virtual bool drain(std::chrono::steady_clock::time_point deadline) = 0;
  /// No further block begins; later ones are dropped. Any thread, also within a block; waits for nothing.
  virtual void cease() = 0;
  /// Runs what waits until `deadline` and drops the rest and later blocks. Always waits for the running block. Not from
  /// within a block.
  virtual void stop(std::chrono::steady_clock::time_point deadline) = 0;
  /// As MachineLoop::letGo().
  virtual void letGo() = 0;
};

/// Concurrent exchanges, and so connections, with one host.
inline constexpr size_t kMaxConnectionsPerHost = 6;

using TransportHandler = std::function<void(kit::TransportOutcome)>;

/// Carries requests. Which may leave, when, and how many at a time is decided before (ExchangeQueue).
class MachineNetwork {
 public:
  virtual ~MachineNetwork() = default;
  /// Begins the exchange; its time-out counts from here. Request::may_leave is asked before anything is sent. `done` is
  /// called once, on any thread, possibly this one, with an answer, an error, or neither if it may not leave; not after
  /// shutdown(). Any thread; does not wait for the network.
  virtual void begin(kit::Request request, TransportHandler done) = 0;
  /// Cancels what is under way and drops what it was handed. No `done` is called after it returned. May be called
  /// again. Takes a few ten milliseconds at most.
  virtual void shutdown() = 0;
};

/// The kit's transport, with what the kit needs beyond the port.
class MachineTransport : public kit::Transport {
 public:
  /// Requests started whose handler has not begun. Any thread.
  virtual size_t inFlight() const = 0;
  /// While held, requests that have not left follow their own rule (kit::WhenHeld); the time-out of a waiting one
  /// counts from when it leaves. What is under way goes on. Any thread; does not block.
  virtual void setHeld(bool held) = 0;
  /// The user's wish changed: waiting requests that may no longer leave end as not sent. Any thread; does not block.
  virtual void wishDidChange() = 0;
  /// Cancels what is in flight, within two seconds. No handler begins from now on. May be called again.
  virtual void shutdown() = 0;
};

/// What decides whether a request leaves. All of it outlives the transport.
struct TransportParts {
  std::string ca_file;
  kit::MainQueue& main_queue;
  TurnGate& gate;  ///< requests started in a turn leave when it is over
  /// The user asked to be forgotten. Called on any thread, under a lock: it must not wait or call back.
  std::function<bool()> is_forgotten;
};

/// How opening a store went. The store can always be used; in the last four cases it lives in memory.
enum class StoreOpening : uint8_t {
  kOpened,
  kCreated,       ///< there was no file
  kSetAside,      ///< the file was unreadable: it was renamed, and a new store begins
  kUnavailable,   ///< no space, no permission, an input or output error: retried with the next writes
  kNewerVersion,  ///< the file is left alone
  kLocked,        ///< another process uses the store
  kNothingToRead  ///< read only: there is no readable store
};

/// One of several values that are set together.
struct StoreWrite {
  std::string_view key;
  kit::Value value;
};

class MachineStore : public kit::KeyValueStore {
 public:
  /// As set() for each in turn, with no commit in between: all survive or none. The values are moved from. Any thread.
  virtual void setTogether(std::span<StoreWrite> writes) = 0;
  /// kUnavailable becomes kNewerVersion if the file turns out to be of one when it can be read at last. Any thread.
  virtual StoreOpening opening() const = 0;
  /// The log line about the opening's problem; empty if there was none.
  virtual const std::string& openingLine() const = 0;
  /// `hook` runs once, when a store that could not be read at its opening recovers: readers may see more changes than
  /// were written. Called within a commit, on any thread: it may read and set values, and must post everything else.
  /// Set it right after the opening. Never called for a store that was readable from the start.
  virtual void setWhenTakenOver(kit::Block hook) = 0;
  /// Commits what a turn wrote without synchronize(); as cheap as that if there is nothing. False: something could not
  /// be stored now, but a later attempt may succeed. Any thread.
  virtual bool commitTurn() = 0;
  /// As synchronize(), for a caller that holds a lock: log lines wait for tellWaiting(). Any thread.
  virtual bool synchronizeUntold() = 0;
  /// Writes the waiting lines to the log. Under no lock. Any thread.
  virtual void tellWaiting() = 0;
  /// All existing properties, in the order of their names. Any thread.
  virtual std::vector<std::pair<std::string, kit::Value>> all() const = 0;
  /// The session has ended: syncs committed data to the disk as soon as possible. Any thread; does not block.
  virtual void flushNow() = 0;
  /// Syncs within a second, as after each commit. Requests until it starts are merged. Any thread; does not block.
  virtual void flushSoon() = 0;
  /// True if everything written so far outlives the process, or nothing was written. Any thread; does not block.
  virtual bool isKept() const = 0;
  /// `hook` runs on the store's own thread with each flush (one follows soon, whatever the store's state), before the
  /// store itself is synced and under no lock: it may wait for the disk. Set it right after the opening.
  virtual void setWhenFlushed(kit::Block hook) = 0;
  /// The end has begun: files that somebody removes from now on stay removed, with their content. Any thread; does not
  /// block.
  virtual void beginToEnd() = 0;
  /// beginToEnd(), then commits, syncs, closes. Later writes stay in memory. May be called again, but not by two
  /// threads at a time.
  virtual void shutdown() = 0;
};

class MachineClock : public kit::Clock {
 public:
  /// Measures waits: nobody sets it, and it goes on while now() stands still. Any thread; takes no lock.
  virtual std::chrono::steady_clock::time_point steadyNow() const = 0;
};

class MachineCalendar : public kit::Calendar {
 public:
  /// The zone's name, "Asia/Seoul" for example. Any thread; may read a link of the file system.
  virtual std::string zoneName() const = 0;
};

/// A started thread. Join or detach it before it is destroyed.
class MachineThread {
 public:
  virtual ~MachineThread() = default;
  virtual void join() = 0;
  virtual void detach() = 0;
};

class MachineThreads : public kit::Threads {
 public:
  /// A thread that runs `body`, with a name (at most 15 characters) for debuggers. The app's signal handlers do not run
  /// on it. An error: the system has none left. Only if Machine::hasThreads(). Any thread.
  virtual std::variant<std::unique_ptr<MachineThread>, kit::Error> start(const char* name,
                                                                         std::function<void()> body) = 0;
};

/// Facts about the machine. Any thread; at most asks the kernel.
class MachineFacts {
 public:
  virtual ~MachineFacts() = default;
  /// One of the network states. `has_loopback_endpoint`: this machine alone is network enough.
  virtual std::string networkStatus(bool has_loopback_endpoint) const = 0;
  /// Bytes an app may still write to the file system of `path`; nothing if unknown.
  virtual std::optional<int64_t> freeDiskBytes(const std::string& path) const = 0;
  /// Unused memory in kibibytes; 0 if unknown.
  virtual uint32_t freeMemoryKibibytes() const = 0;
};

/// The wish to be forgotten, and whether the erasure service accepted it: what survives an erasure.
struct KeptWish {
  bool is_forgotten = false;
  bool is_synced = false;
};

/// The second copy of the wish to be forgotten: a small file next to the store, independent of the store's state. One
/// thread at a time, except for read(), takeTurn(), sync() and prepare(), which may run at the same time as the others;
/// sync() and prepare() are called on the store's thread.
class MachineWishFile {
 public:
  enum class State : uint8_t {
    kMissing,
    kRead,
    kNotRead,     ///< an input or output error: existence and content may become known later
    kUnreadable,  ///< its content is invalid, and stays so
  };
  struct Reading {
    State state = State::kMissing;
    bool is_forgotten = false;
    std::string problem;    ///< why it cannot be read
    uint64_t sequence = 0;  ///< of the valid content; 0: the next write writes the whole file
  };

  virtual ~MachineWishFile() = default;
  /// For log lines.
  virtual std::string path() const = 0;
  /// Changes nothing; may wait for the disk.
  virtual Reading read() = 0;
  /// What is written from now on supersedes what was read.
  virtual void goOnFrom(const Reading& reading) = 0;
  /// Whether the text to write was said just now, or is being retried.
  enum class Word : uint8_t { kNew, kAgain };
  /// Makes processes write the file one after the other.
  struct Turn {
    std::shared_ptr<const void> taken;  ///< released on destruction; null: another process has it, or none is needed
    std::optional<kit::Error> held_up;  ///< another process has it
  };
  /// Waits at most `longest` for another process's turn; 0: not at all. Any thread.
  virtual Turn takeTurn(std::chrono::milliseconds longest) = 0;
  /// In the kernel's hands when it returns; does not wait for the disk. Creates a file that is missing or was
  /// unreadable. Supersedes all that the file says by now, with one exception: "not forgotten" retried after another
  /// process said "forgotten" leaves the file as it is, and that is no error. Without the turn, "forgotten" is written
  /// with a number that the other process does not reach, and "not forgotten" is not written: an error.
  virtual std::optional<kit::Error> write(bool is_forgotten, Word word, const Turn& turn) = 0;
  /// Any thread.
  virtual bool isThere() const = 0;
  /// Makes the latest write, and the file's name, durable. Waits for the disk.
  virtual std::optional<kit::Error> sync() = 0;
  /// Writes a whole file under another name. Waits for the disk.
  virtual std::optional<kit::Error> prepare(bool is_forgotten) = 0;
  /// Gives the prepared file its final name, which must be free; sync() makes that durable.
  virtual std::optional<kit::Error> adopt() = 0;
  /// Removes the prepared file.
  virtual void discard() = 0;
};

/// Removes the kit's files for one store folder: the store, the files next to it, and those set aside. Other files
/// stay. One thread at a time.
class MachineEraser {
 public:
  virtual ~MachineEraser() = default;
  /// Finishes what an earlier process began; does nothing if none did, or while another process holds the store. Call
  /// before the store is opened. An error says what cannot be removed: the store must not be opened then.
  virtual std::optional<kit::Error> resume() = 0;
  /// An erasure was begun and not finished.
  virtual bool isDue() const = 0;
  /// From now on resume() finishes the work of a process that dies. Waits for the disk.
  virtual std::optional<kit::Error> begin(KeptWish wish) = 0;
  /// Removes everything except the wish. The store is shut down. Waits for the disk. After an error, resume()
  /// continues.
  virtual std::optional<kit::Error> finish(KeptWish wish) = 0;
};

struct UrlFacts {
  bool is_loopback = false;  ///< leads to this machine itself
};

/// What an app's options name outside of the app, as the machine sees it. Main thread.
class MachineInputs {
 public:
  virtual ~MachineInputs() = default;
  /// The whole content of a small file; nothing if it cannot be read or has more than `max_bytes`. Blocks for reading.
  virtual std::optional<std::string> readFile(const std::string& path, size_t max_bytes) const = 0;
  /// A variable of the process's environment; nothing if it is not set.
  virtual std::optional<std::string> variable(const std::string& name) const = 0;
  /// Whether the machine's network may send to this URL: HTTPS to anywhere, HTTP to this machine only. The error says
  /// why not and how to fix it; the caller names the URL.
  virtual std::variant<UrlFacts, kit::Error> checkUrl(const std::string& url) const = 0;
  /// What is wrong with the places in the options: a store folder that is no folder, a missing certificate file. Looks
  /// at both, reads neither.
  virtual std::optional<kit::Error> checkPlaces(const StartOptions& options) const = 0;
  /// The path to the same place after the app changes its working directory; unchanged if that cannot be determined.
  /// `path` is not empty.
  virtual std::string absolutePath(const std::string& path) const = 0;
};

/// Reports crashes of the process while it lives.
class MachineCrashHook {
 public:
  virtual ~MachineCrashHook() = default;
};

/// Crashes of the processes that use one store folder. Main thread.
class MachineCrashes {
 public:
  virtual ~MachineCrashes() = default;
  /// Adds function names to the stacks of stored reports, which a dying process writes without. Call before any is
  /// sent. Blocks for reading and writing files, not for a disk sync.
  virtual void nameStoredTraces(const services::MorvikGVUserDefaults& store) = 0;
  /// Passes each unreported crash of an earlier process to `take`. Those it does not take are kept for the next start,
  /// with a log line. Blocks for reading files.
  virtual void reportEarlier(const TakeCrash& take) = 0;
  /// From now on crashes of this process are reported. One hook in a process at a time. The error says why there is
  /// none.
  virtual std::variant<std::unique_ptr<MachineCrashHook>, kit::Error> install(CrashReporting reporting) = 0;
};

/// Where log lines go.
class MachineLogSink : public kit::LogSink {
 public:
  /// The instance is ending: line() waits for the system until then at most, and drops what it does not take. Any
  /// thread.
  virtual void waitUntil(std::chrono::steady_clock::time_point /*deadline*/) {}
};

/// Changes a stored value by hand, for a test or a tool; the ledger counts what that removes. No effect once the
/// instance is gone. Any thread.
using StoreEditor = std::function<void(std::string_view key, kit::Value value)>;

/// Makes the parts. Each function is called at most once per instance, except makeLogSink(); what it gets by reference
/// outlives what it returns. Main thread.
class Machine {
 public:
  virtual ~Machine() = default;

  virtual std::unique_ptr<const MachineInputs> makeInputs() = 0;
  /// Appends lines to that file or, with "", writes them where a program's output goes by default: to standard error,
  /// say. The error says why the file cannot be used and how to fix it.
  virtual std::variant<std::unique_ptr<MachineLogSink>, kit::Error> makeLogSink(const std::string& file) = 0;
  virtual std::unique_ptr<MachineClock> makeClock() = 0;
  virtual std::unique_ptr<MachineCalendar> makeCalendar() = 0;
  virtual std::unique_ptr<kit::Random> makeRandom() = 0;
  virtual std::unique_ptr<MachineThreads> makeThreads() = 0;
  virtual std::unique_ptr<MachineFacts> makeFacts() = 0;
  virtual std::unique_ptr<const kit::Cipher> makeCipher() = 0;
  /// `stop` aborts a running deflation, with an error.
  virtual std::unique_ptr<const kit::Compressor> makeCompressor(const kit::StopRequest& stop) = 0;
  virtual std::unique_ptr<const kit::KeyedHash> makeKeyedHash() = 0;
  virtual std::unique_ptr<const kit::JsonCodec> makeJsonCodec() = 0;
  virtual std::unique_ptr<MachineEraser> makeEraser(const std::string& folder, kit::LogSink& log) = 0;
  /// Null: no state of this machine's store could hide a wish.
  virtual std::unique_ptr<MachineWishFile> makeWishFile(const std::string& folder) = 0;
  virtual std::unique_ptr<MachineStore> makeStore(const std::string& folder, kit::LogSink& log) = 0;
  virtual std::unique_ptr<kit::ReportShelf> makeReportShelf(const std::string& folder, const kit::JsonCodec& json,
                                                            kit::LogSink& log) = 0;
  /// Null: this machine reports no crashes. `json` and what `logger` writes to also outlive the hook.
  virtual std::unique_ptr<MachineCrashes> makeCrashes(const std::string& /*folder*/, const kit::JsonCodec& /*json*/,
                                                      const services::Logger& /*logger*/) {
    return nullptr;
  }
  virtual std::unique_ptr<MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) = 0;
  virtual std::unique_ptr<MachineBackground> makeBackground(const services::Logger& logger) = 0;
  /// For machines on which somebody may change what the kit stores; others ignore it. Called once, when the store is
  /// open.
  virtual void takeEditor(const StoreEditor& /*editor*/) {}
  /// 0 in each forked child, as soon as it runs; the kit writes it. One for all machines of the process, never
  /// destroyed. The default is never set to 0, for systems without fork. Any thread.
  virtual std::atomic<uint64_t>& processWord();
  /// Whether time and threads are real, so that an end may need waiting, or detached threads.
  virtual bool hasThreads() const { return true; }
  /// `ca_file`: certificates (PEM) to trust instead of the system's; "": the system's.
  virtual std::unique_ptr<MachineNetwork> makeNetwork(const std::string& ca_file) = 0;
  /// Decides which requests leave, on top of the machine's network: ExchangeQueue. For machines that watch what passes.
  virtual std::unique_ptr<MachineTransport> makeTransport(TransportParts parts);
};

}  // namespace morvik::runtime
