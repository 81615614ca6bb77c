// What the host stands on: the queues, the clock, the store, the network and the few facts of a machine. The system is
// one (system_machine.h); a machine whose time is virtual and whose network is written down beforehand is another.
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

/// A delay of at most this is work that a session end has put off; a longer one is a retry.
inline constexpr double kShortDelaySeconds = 1.0;

/// What waits on the main queue.
struct MainLoopCounts {
  size_t blocks = 0;         ///< blocks that are due; the running one is not counted
  size_t short_timers = 0;   ///< blocks put off by at most kShortDelaySeconds
  size_t longer_timers = 0;  ///< blocks put off by more
};

/// The main queue and what runs it. One block is one turn, run inside the frame that was set (where its writes are
/// committed and its requests leave). When the frame is done, what afterThisTurn() was handed runs. What a block throws
/// ends there, with a line in the log.
class MachineLoop : public kit::MainQueue {
 public:
  /// Names a timer of schedule(); never used twice.
  using TimerKey = std::pair<uint64_t, uint64_t>;

  /// Runs around every turn, on the main thread. To be set before open().
  virtual void setFrame(TurnFrame frame) = 0;
  /// Begins to run turns. Blocks that were handed over before wait until now. Once. An error says what the system
  /// refused.
  virtual std::optional<kit::Error> open() = 0;
  /// Lets the blocks that are due now run, each a turn, and returns when they have, or at `deadline`: then with false.
  /// A pumped loop runs them here, on its thread; on any other thread it answers false at once. Not from within a turn.
  virtual bool drain(std::chrono::steady_clock::time_point deadline) = 0;
  /// No further turn begins; what waits never runs, and blocks handed over later are dropped. Any thread, also within a
  /// turn; waits for nothing.
  virtual void cease() = 0;
  /// Waits, without a block of its own, until no turn runs, or until `deadline`: then with false. Not within a turn.
  virtual bool waitUntilIdle(std::chrono::steady_clock::time_point deadline) = 0;
  /// Ends, as cease(), and waits for the running turn; what waits is let go of. Any thread. Answers false, and does
  /// nothing, when called from within a turn.
  virtual bool stop() = 0;
  /// For a loop that will never be destroyed, after cease(): its thread ends by itself, and nobody waits for it. Any
  /// thread, also within a turn; does not block. Not beside stop().
  virtual void letGo() = 0;

  /// As after(), for the host's own affairs: can be cancelled and is not counted. Any thread.
  virtual TimerKey schedule(double delay_seconds, kit::Block block) = 0;
  /// Drops the timer's block if it still waits; one that is due already runs. Any thread.
  virtual void cancel(TimerKey timer) = 0;
  /// Runs `block` at once when called on the main thread (within the running turn, else as a turn of its own), and
  /// posts it from any other thread.
  virtual void runOnMain(kit::Block block) = 0;
  /// Runs `block` once the running turn is committed, before the next. From within a turn only.
  virtual void afterThisTurn(kit::Block block) = 0;
  /// True on the thread that runs the turns. Any thread.
  virtual bool isMainThread() const = 0;
  /// True within a turn, asked on its thread.
  virtual bool isInTurn() const = 0;
  /// Any thread.
  virtual MainLoopCounts counts() const = 0;

  // A pumped loop, on its thread; else -1, -1 and nothing.
  virtual int pollDescriptor() const = 0;
  virtual int pollTimeoutMilliseconds() const = 0;
  virtual void dispatch() = 0;
  /// True where pumpFor() works: on the main thread of a pumped loop, outside of a turn. Any thread.
  virtual bool canPump() const = 0;
  /// Waits for what is to be dispatched, and dispatches it, until `is_done`, which is asked between the turns, or so
  /// long; no turn begins after that.
  virtual void pumpFor(double max_seconds, const std::function<bool()>& is_done) = 0;
  /// Runs `block` as a turn, on the main thread at once, and returns when it is done. False: it did not begin in that
  /// time, or the loop runs no turns any more, and it never will. Any thread, outside of a turn.
  virtual bool runWithin(double max_seconds, kit::Block block) = 0;
};

/// The background queue. Blocks run one after the other, in order, each inside the frame that was set. What a block
/// throws ends there, with a line in the log.
class MachineBackground : public kit::BackgroundQueue {
 public:
  /// Runs around every block. To be set before the first block.
  virtual void setFrame(TurnFrame frame) = 0;
  /// Called, where the blocks run, each time the last block that waited is done and no longer counted. Must not throw.
  /// To be set before the first block.
  virtual void setWhenIdle(kit::Block hook) = 0;
  /// Blocks that wait or run, their frame included. Any thread.
  virtual size_t pending() const = 0;
  /// True within a block, asked on its thread.
  virtual bool isInBlock() const = 0;
  /// Waits until no block waits or runs (after cease(): until none runs), or until `deadline`: then with false. Not
  /// from within a block.
  virtual bool drain(std::chrono::steady_clock::time_point deadline) = 0;
  /// No further block begins; blocks that come later are dropped. Any thread, also within a block; waits for nothing.
  virtual void cease() = 0;
  /// Runs what waits until `deadline` and drops the rest; blocks that come later are dropped. Waits for the running
  /// block in any case. Not from within a block.
  virtual void stop(std::chrono::steady_clock::time_point deadline) = 0;
  /// As MachineLoop::letGo().
  virtual void letGo() = 0;
};

/// Exchanges with one host that are under way at the same time, and so connections to it.
inline constexpr size_t kMaxConnectionsPerHost = 6;

using TransportHandler = std::function<void(kit::TransportOutcome)>;

/// What carries requests. Who may leave, when and how many at a time is decided before (ExchangeQueue).
class MachineNetwork {
 public:
  virtual ~MachineNetwork() = default;
  /// Begins the exchange now; its time-out counts from here. Request::may_leave is asked before anything of it is sent.
  /// `done` is called once, with an answer, an error, or, where it may not leave, neither, on any thread, possibly this
  /// one; not after shutdown(). Any thread; does not wait for the network.
  virtual void begin(kit::Request request, TransportHandler done) = 0;
  /// Cancels what is under way and lets go of what it was handed. When it has returned, no `done` is called any more.
  /// May be called again. Takes a few ten milliseconds at most.
  virtual void shutdown() = 0;
};

/// The transport of the host, with what the host asks of it beyond the port.
class MachineTransport : public kit::Transport {
 public:
  /// Requests that were started and whose handler has not begun. Any thread.
  virtual size_t inFlight() const = 0;
  /// While held, what has not left is dealt with as it says itself (kit::WhenHeld); the time-out of what waits counts
  /// from when it leaves. What is under way goes on. Any thread; does not block.
  virtual void setHeld(bool held) = 0;
  /// The user's wish has changed: what waits and may not leave any more ends as not sent. Any thread; does not block.
  virtual void wishDidChange() = 0;
  /// Cancels what is in flight, within two seconds. No handler begins from here on. May be called again.
  virtual void shutdown() = 0;
};

/// What decides whether a request leaves. All of it outlives the transport.
struct TransportParts {
  std::string ca_file;
  kit::MainQueue& main_queue;
  TurnGate& gate;  ///< what a turn starts leaves when the turn is over
  /// The user has asked to be forgotten. Called on any thread, under a lock: it must not wait or call back.
  std::function<bool()> is_forgotten;
};

/// How opening a store went. In every case the store can be used; in the last four it lives in memory.
enum class StoreOpening : uint8_t {
  kOpened,
  kCreated,       ///< there was none
  kSetAside,      ///< the file could not be read: it has another name now, and a fresh store begins
  kUnavailable,   ///< no room, no permission, an input or output error: tried again with the next writes
  kNewerVersion,  ///< the file is left as it is
  kLocked,        ///< another process uses the store
  kNothingToRead  ///< read only: there is no store, or it cannot be read
};

/// One of several values that are set together.
struct StoreWrite {
  std::string_view key;
  kit::Value value;
};

class MachineStore : public kit::KeyValueStore {
 public:
  /// As set() for each of them in turn, and no commit comes in between: they survive together or not at all. The values
  /// are moved from. Any thread.
  virtual void setTogether(std::span<StoreWrite> writes) = 0;
  /// kUnavailable becomes kNewerVersion where the file turns out to be one when it can be read at last. Any thread.
  virtual StoreOpening opening() const = 0;
  /// The line that told what went wrong at opening; empty when nothing did.
  virtual const std::string& openingLine() const = 0;
  /// `hook` runs once when the store, which could not be read at its opening, has come to light: what readers see may
  /// have changed by more than was written. Within a commit, on any thread: it may read and set values, and must hand
  /// on everything else. To be set right after the opening. A store that is there from the beginning never calls it.
  virtual void setWhenTakenOver(kit::Block hook) = 0;
  /// Commits what a turn wrote without synchronize(); as cheap as that when there is nothing. False: something could
  /// not be kept now, and a later try may keep it. Any thread.
  virtual bool commitTurn() = 0;
  /// As synchronize(), for a caller that holds a lock: what is to be said of it waits for tellWaiting(). Any thread.
  virtual bool synchronizeUntold() = 0;
  /// Writes the lines that wait to the log. Under no lock. Any thread.
  virtual void tellWaiting() = 0;
  /// All properties that are there, in the order of their names. Any thread.
  virtual std::vector<std::pair<std::string, kit::Value>> all() const = 0;
  /// The session has ended: what is committed goes to the disk as soon as can be. Any thread; does not block.
  virtual void flushNow() = 0;
  /// A flush within a second, as after each commit. Requests until it starts are one. Any thread; does not block.
  virtual void flushSoon() = 0;
  /// True when what was written up to now outlives the process, and when nothing was. Any thread; does not block.
  virtual bool isKept() const = 0;
  /// `hook` runs on the store's own thread with each flush (one follows soon, whatever state the store is in), before
  /// the store itself is synced and under no lock: it may wait for the disk. To be set right after the opening.
  virtual void setWhenFlushed(kit::Block hook) = 0;
  /// The end has begun: from here on files that somebody removes stay removed, and so does what they held. Any thread;
  /// does not block.
  virtual void beginToEnd() = 0;
  /// beginToEnd(), then commits, syncs, closes. Later writes stay in memory. May be called again, but not by two
  /// threads at a time.
  virtual void shutdown() = 0;
};

class MachineClock : public kit::Clock {
 public:
  /// What a wait is measured by: nobody sets it, and it goes on where now() stands. Any thread; waits for no lock.
  virtual std::chrono::steady_clock::time_point steadyNow() const = 0;
};

class MachineCalendar : public kit::Calendar {
 public:
  /// Name of the zone, "Asia/Seoul" say. Any thread; may read a link of the file system.
  virtual std::string zoneName() const = 0;
};

/// A thread that was started. Joined or detached before it goes.
class MachineThread {
 public:
  virtual ~MachineThread() = default;
  virtual void join() = 0;
  virtual void detach() = 0;
};

class MachineThreads : public kit::Threads {
 public:
  /// A thread that runs `body`, under a name (at most 15 characters) that debuggers show. The app's handlers of signals
  /// do not run on it. An error says that the system gave none. Only where Machine::hasThreads(). Any thread.
  virtual std::variant<std::unique_ptr<MachineThread>, kit::Error> start(const char* name,
                                                                         std::function<void()> body) = 0;
};

/// What a machine tells of itself. Any thread; asks the kernel, at most.
class MachineFacts {
 public:
  virtual ~MachineFacts() = default;
  /// One of the network states; `has_loopback_endpoint`: this machine alone is network enough.
  virtual std::string networkStatus(bool has_loopback_endpoint) const = 0;
  /// Bytes that an app may still write to the file system of `path`; nothing when the machine does not tell.
  virtual std::optional<int64_t> freeDiskBytes(const std::string& path) const = 0;
  /// Memory that nothing uses, in kibibytes; 0 when the machine does not tell.
  virtual uint32_t freeMemoryKibibytes() const = 0;
};

/// The wish to be forgotten, and whether the erasure service has accepted it: what outlives an erasing.
struct KeptWish {
  bool is_forgotten = false;
  bool is_synced = false;
};

/// The second home of the wish to be forgotten: a small file beside the store, which no state of the store touches.
/// One thread at a time, but for read(), takeTurn(), sync() and prepare(), which run beside the others; the latter two
/// are the store's thread's.
class MachineWishFile {
 public:
  enum class State : uint8_t {
    kMissing,
    kRead,
    kNotRead,     ///< an input or output error: whether there is one, and what it says, may be known later
    kUnreadable,  ///< it says nothing that is valid, and will not later
  };
  struct Reading {
    State state = State::kMissing;
    bool is_forgotten = false;
    std::string problem;    ///< of one that cannot be read
    uint64_t sequence = 0;  ///< of what counts in it; 0: what is written next is written whole
  };

  virtual ~MachineWishFile() = default;
  /// For lines of the log.
  virtual std::string path() const = 0;
  /// Changes nothing; may wait for the disk.
  virtual Reading read() = 0;
  /// What is written from here on comes after what was read.
  virtual void goOnFrom(const Reading& reading) = 0;
  /// What is to be written was said just now, or is tried once more.
  enum class Word : uint8_t { kNew, kAgain };
  /// Lets the processes that write the file do so one after the other.
  struct Turn {
    std::shared_ptr<const void> taken;  ///< given back with it; null: another process has it, or there is none to take
    std::optional<kit::Error> held_up;  ///< another process has it
  };
  /// Waits for another process's turn for `longest` at most; 0: not at all. Any thread.
  virtual Turn takeTurn(std::chrono::milliseconds longest) = 0;
  /// In the kernel's hands when it returns; waits for no disk. Makes a file that is missing, or was unreadable. It
  /// comes behind all that the file says by now, but for "not forgotten" that is written again where another process
  /// has said "forgotten" meanwhile: then the file stays as it is, and that is no error. Without the turn "forgotten"
  /// is written with a number that the other process's does not reach, and "not forgotten" is not written: an error.
  virtual std::optional<kit::Error> write(bool is_forgotten, Word word, const Turn& turn) = 0;
  /// Any thread.
  virtual bool isThere() const = 0;
  /// Makes what was written last, and the file's name. Waits for the disk.
  virtual std::optional<kit::Error> sync() = 0;
  /// Writes a whole file under another name. Waits for the disk.
  virtual std::optional<kit::Error> prepare(bool is_forgotten) = 0;
  /// Makes the file that was prepared the one, of which there is none yet; sync() makes that last.
  virtual std::optional<kit::Error> adopt() = 0;
  /// Removes what was prepared.
  virtual void discard() = 0;
};

/// Removes what the kit keeps for one store folder: the store, what lies beside it, and what was set aside. What is not
/// the kit's stays. One thread at a time.
class MachineEraser {
 public:
  virtual ~MachineEraser() = default;
  /// Finishes what an earlier process began; does nothing when none did, or while another process holds the store.
  /// Before the store is opened. An error says what cannot be removed: the store must not be opened then.
  virtual std::optional<kit::Error> resume() = 0;
  /// An erasing was begun and not ended.
  virtual bool isDue() const = 0;
  /// From here on a process that dies leaves the rest to resume(). Waits for the disk.
  virtual std::optional<kit::Error> begin(KeptWish wish) = 0;
  /// Removes everything but the wish. The store is shut down. Waits for the disk. With an error, resume() goes on.
  virtual std::optional<kit::Error> finish(KeptWish wish) = 0;
};

struct UrlFacts {
  bool is_loopback = false;  ///< it leads to this machine itself
};

/// What an app's options name outside of the app, as the machine has it. The main thread.
class MachineInputs {
 public:
  virtual ~MachineInputs() = default;
  /// All of a small file; nothing when it cannot be read or has more than `max_bytes`. Blocks for reading.
  virtual std::optional<std::string> readFile(const std::string& path, size_t max_bytes) const = 0;
  /// A variable of the process's environment; nothing where there is none.
  virtual std::optional<std::string> variable(const std::string& name) const = 0;
  /// Whether the machine's network may send to this URL: HTTPS to anywhere, HTTP to this machine alone. The error says
  /// why not and how to mend it, and leaves it to the caller to name the URL.
  virtual std::variant<UrlFacts, kit::Error> checkUrl(const std::string& url) const = 0;
  /// What is wrong with the places that the options name: a store folder that is no folder, a file of certificates that
  /// is not there. Looks at both, and reads neither.
  virtual std::optional<kit::Error> checkPlaces(const StartOptions& options) const = 0;
  /// The path that leads to the same place after the app has changed its working directory; as it is where that cannot
  /// be told. `path` is not empty.
  virtual std::string absolutePath(const std::string& path) const = 0;
};

/// Reports crashes of the process for as long as it lives.
class MachineCrashHook {
 public:
  virtual ~MachineCrashHook() = default;
};

/// Crashes of the processes that use one store folder. The main thread.
class MachineCrashes {
 public:
  virtual ~MachineCrashes() = default;
  /// Puts the names of functions into the stacks of stored reports, which a dying process writes without. Before any is
  /// sent. Blocks for reading files and writing, not for a disk sync.
  virtual void nameStoredTraces(const services::MorvikGVUserDefaults& store) = 0;
  /// Hands each crash that ended an earlier process, and is not reported yet, to `take`. What that does not take is
  /// kept for the next start, and a line in the log says so. Blocks for reading files.
  virtual void reportEarlier(const TakeCrash& take) = 0;
  /// From here on crashes of this process are reported. One hook in a process at a time. The error says why there is
  /// none.
  virtual std::variant<std::unique_ptr<MachineCrashHook>, kit::Error> install(CrashReporting reporting) = 0;
};

/// Where the lines of a log go.
class MachineLogSink : public kit::LogSink {
 public:
  /// The host ends: line() waits for the system until then at most, and drops what it does not take. Any thread.
  virtual void waitUntil(std::chrono::steady_clock::time_point /*deadline*/) {}
};

/// Changes a stored value by hand, as a test or a tool does; the ledger counts what that removes. Does nothing once the
/// kit is gone. Any thread.
using StoreEditor = std::function<void(std::string_view key, kit::Value value)>;

/// Makes the parts. Each function is called once for a host, or never, but for makeLogSink(); what it is handed by
/// reference outlives what it returns. The main thread.
class Machine {
 public:
  virtual ~Machine() = default;

  virtual std::unique_ptr<const MachineInputs> makeInputs() = 0;
  /// Appends the lines to that file or, with "", writes them where lines of a program go that nobody takes: to standard
  /// error, say. The error says why the file cannot be used and how to mend it.
  virtual std::variant<std::unique_ptr<MachineLogSink>, kit::Error> makeLogSink(const std::string& file) = 0;
  virtual std::unique_ptr<MachineClock> makeClock() = 0;
  virtual std::unique_ptr<MachineCalendar> makeCalendar() = 0;
  virtual std::unique_ptr<kit::Random> makeRandom() = 0;
  virtual std::unique_ptr<MachineThreads> makeThreads() = 0;
  virtual std::unique_ptr<MachineFacts> makeFacts() = 0;
  virtual std::unique_ptr<const kit::Cipher> makeCipher() = 0;
  /// `stop` ends a deflation that runs, with an error.
  virtual std::unique_ptr<const kit::Compressor> makeCompressor(const kit::StopRequest& stop) = 0;
  virtual std::unique_ptr<const kit::KeyedHash> makeKeyedHash() = 0;
  virtual std::unique_ptr<const kit::JsonCodec> makeJsonCodec() = 0;
  virtual std::unique_ptr<MachineEraser> makeEraser(const std::string& folder, kit::LogSink& log) = 0;
  /// Null: no state of this machine's store could hide a wish.
  virtual std::unique_ptr<MachineWishFile> makeWishFile(const std::string& folder) = 0;
  virtual std::unique_ptr<MachineStore> makeStore(const std::string& folder, kit::LogSink& log) = 0;
  virtual std::unique_ptr<kit::ReportShelf> makeReportShelf(const std::string& folder, const kit::JsonCodec& json,
                                                            kit::LogSink& log) = 0;
  /// Null: nobody watches the processes of this machine. `json` and what `logger` writes to outlive the hook as well.
  virtual std::unique_ptr<MachineCrashes> makeCrashes(const std::string& /*folder*/, const kit::JsonCodec& /*json*/,
                                                      const services::Logger& /*logger*/) {
    return nullptr;
  }
  virtual std::unique_ptr<MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) = 0;
  virtual std::unique_ptr<MachineBackground> makeBackground(const services::Logger& logger) = 0;
  /// For machines that let somebody change what the kit stores; others let it go. Called once, when the store is open.
  virtual void takeEditor(StoreEditor /*editor*/) {}
  /// 0 in each child that is forked, as soon as it runs; the kit writes it. One for all machines of the process, never
  /// destroyed. By itself one that nobody sets to 0, for systems on which no process is forked. Any thread.
  virtual std::atomic<uint64_t>& processWord();
  /// Whether time and threads are real, so that an end may have to be waited for and left to itself.
  virtual bool hasThreads() const { return true; }
  /// `ca_file`: certificates (PEM) to trust in place of the system's; "": the system's.
  virtual std::unique_ptr<MachineNetwork> makeNetwork(const std::string& ca_file) = 0;
  /// What decides who leaves, on the machine's network: ExchangeQueue. For machines that look at what passes.
  virtual std::unique_ptr<MachineTransport> makeTransport(TransportParts parts);
};

}  // namespace morvik::runtime
