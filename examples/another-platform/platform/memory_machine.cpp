#include "memory_machine.h"

#include <span>
#include <string_view>
#include <utility>

#include "kit/MorvikADUtil.h"
#include "services/MorvikGVUserDefaults.h"
#include "testing/fake_calendar.h"
#include "testing/fake_keyed_hash.h"
#include "testing/json_reader.h"

namespace platform {
namespace {

namespace kit = morvik::kit;
namespace runtime = morvik::runtime;
namespace testing = morvik::testing;

/// No files and no environment.
class Inputs final : public runtime::MachineInputs {
 public:
  std::optional<std::string> readFile(const std::string&, size_t) const override { return std::nullopt; }
  std::optional<std::string> variable(const std::string&) const override { return std::nullopt; }
  std::variant<runtime::UrlFacts, kit::Error> checkUrl(const std::string& url) const override {
    if (!url.starts_with("https://"))
      return kit::Error{"it must begin with https://"};
    return runtime::UrlFacts{};
  }
  std::optional<kit::Error> checkPlaces(const morvik::StartOptions&) const override { return std::nullopt; }
  std::string absolutePath(const std::string& path) const override { return path; }
};

class Console final : public runtime::MachineLogSink {
 public:
  explicit Console(std::vector<std::string>& lines) : lines_(lines) {}
  void line(std::string_view text) override { lines_.emplace_back(text); }
  bool tryLine(std::string_view text) override {
    line(text);
    return true;
  }

 private:
  std::vector<std::string>& lines_;
};

class Clock final : public runtime::MachineClock {
 public:
  explicit Clock(DeviceTime& time) : time_(time) {}
  kit::Date now() const override { return time_.now; }
  std::chrono::steady_clock::time_point steadyNow() const override {
    return std::chrono::steady_clock::time_point(time_.uptime);
  }

 private:
  DeviceTime& time_;
};

class Calendar final : public runtime::MachineCalendar {
 public:
  kit::CalendarComponents components(kit::Date date) const override { return utc_.components(date); }
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override {
    return utc_.date(components);
  }
  std::string zoneName() const override { return "UTC"; }

 private:
  const testing::FixedOffsetCalendar utc_;
};

class Facts final : public runtime::MachineFacts {
 public:
  explicit Facts(const Device& device) : device_(device) {}
  std::string networkStatus(bool) const override { return device_.service ? "wifi" : kit::kNetworkUnknown; }
  std::optional<int64_t> freeDiskBytes(const std::string&) const override { return std::nullopt; }
  uint32_t freeMemoryKibibytes() const override { return 0; }

 private:
  const Device& device_;
};

/// The device's source, shared by all processes.
class Random final : public kit::Random {
 public:
  explicit Random(kit::Random& source) : source_(source) {}
  void fill(std::span<uint8_t> bytes) override { source_.fill(bytes); }

 private:
  kit::Random& source_;
};

/// Committed writes survive the process. A store on a disk also syncs them, on its own thread.
class Store final : public runtime::MachineStore {
 public:
  explicit Store(testing::MemoryStore& store) : store_(store) {}
  kit::Value get(std::string_view key) const override { return store_.get(key); }
  void set(std::string_view key, kit::Value value) override { store_.set(key, std::move(value)); }
  void append(std::string_view key, kit::Value element) override { store_.append(key, std::move(element)); }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    store_.replace(key, before, std::move(after));
  }
  void setTogether(std::span<runtime::StoreWrite> writes) override {
    for (runtime::StoreWrite& write : writes)
      store_.set(write.key, std::move(write.value));
  }
  std::vector<std::pair<std::string, kit::Value>> all() const override {
    const auto contents = store_.contents();
    return {contents.begin(), contents.end()};
  }

  bool synchronize() override { return store_.synchronize(); }
  bool synchronizeUntold() override { return store_.synchronize(); }
  bool commitTurn() override {
    store_.commitTurn();
    return true;
  }
  bool isKept() const override { return store_.uncommittedWrites() == 0; }
  void beginToEnd() override {}
  void shutdown() override { store_.synchronize(); }

  std::optional<kit::Value> tryGet(std::string_view key) const override { return store_.tryGet(key); }
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override {
    return store_.trySetAndSynchronize(key, std::move(value));
  }

  // It can always be opened, logs nothing and has no disk to wait for.
  runtime::StoreOpening opening() const override { return runtime::StoreOpening::kOpened; }
  const std::string& openingLine() const override { return no_line_; }
  void tellWaiting() override {}
  void setWhenTakenOver(kit::Block) override {}
  void flushNow() override {}
  void flushSoon() override {}
  void setWhenFlushed(kit::Block) override {}

 private:
  testing::MemoryStore& store_;
  const std::string no_line_;
};

/// Cannot be interrupted, so an erasure is never left unfinished.
class Eraser final : public runtime::MachineEraser {
 public:
  explicit Eraser(Device& device) : device_(device) {}
  std::optional<kit::Error> resume() override { return std::nullopt; }
  bool isDue() const override { return false; }
  std::optional<kit::Error> begin(runtime::KeptWish) override { return std::nullopt; }
  std::optional<kit::Error> finish(runtime::KeptWish wish) override {
    for (const auto& [key, value] : device_.store.contents())
      device_.store.set(key, {});
    kit::ListLock lock;
    const morvik::services::MorvikGVUserDefaults properties(device_.store, lock);
    if (wish.is_forgotten)
      properties.setMorvikCoreUserInfo_isGDPRForgetMe(true);
    if (wish.is_synced)
      properties.setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
    device_.store.synchronize();
    device_.crash_reports.clear();
    return std::nullopt;
  }

 private:
  Device& device_;
};

class Shelf final : public kit::ReportShelf {
 public:
  explicit Shelf(kit::ReportShelf& shelf) : shelf_(shelf) {}
  std::optional<kit::Error> append(const kit::Value& report) override { return shelf_.append(report); }
  kit::Array reports() override { return shelf_.reports(); }
  void clear() override { shelf_.clear(); }

 private:
  kit::ReportShelf& shelf_;
};

class OnlyThread final : public runtime::MachineThreads {
 public:
  std::string currentThreadDescription() const override { return "<Thread: 0x1>{number = 1, name = main}"; }
  std::variant<std::unique_ptr<runtime::MachineThread>, kit::Error> start(const char*, std::function<void()>) override {
    return kit::Error{"this platform has no threads"};
  }
};

/// Answers at once. A real network calls `done` when the answer arrives, on any thread.
class Network final : public runtime::MachineNetwork {
 public:
  explicit Network(const Device& device) : device_(device) {}
  void begin(kit::Request request, runtime::TransportHandler done) override {
    if (request.may_leave && !request.may_leave())
      return done({});
    if (!device_.service)
      return done({std::nullopt, kit::Error{"there is no network"}});
    kit::Response answer = device_.service(request);
    if (answer.body.size() > request.max_answer_bytes)
      return done({std::nullopt, kit::Error{"the answer is too large"}});
    done({std::move(answer), std::nullopt});
  }
  void shutdown() override {}

 private:
  const Device& device_;
};

}  // namespace

std::unique_ptr<const runtime::MachineInputs> MemoryMachine::makeInputs() {
  return std::make_unique<Inputs>();
}

std::variant<std::unique_ptr<runtime::MachineLogSink>, kit::Error> MemoryMachine::makeLogSink(const std::string& file) {
  if (!file.empty())
    return kit::Error{"this platform has no files"};
  return std::make_unique<Console>(device_.log);
}

std::unique_ptr<runtime::MachineClock> MemoryMachine::makeClock() {
  return std::make_unique<Clock>(device_.time);
}

std::unique_ptr<runtime::MachineCalendar> MemoryMachine::makeCalendar() {
  return std::make_unique<Calendar>();
}

std::unique_ptr<runtime::MachineFacts> MemoryMachine::makeFacts() {
  return std::make_unique<Facts>(device_);
}

// The fakes protect nothing. A real platform provides AES-256-GCM, zlib, HMAC-SHA-256 and unpredictable bytes.
std::unique_ptr<kit::Random> MemoryMachine::makeRandom() {
  return std::make_unique<Random>(device_.random);
}

std::unique_ptr<const kit::Cipher> MemoryMachine::makeCipher() {
  return std::make_unique<testing::FakeCipher>();
}

std::unique_ptr<const kit::Compressor> MemoryMachine::makeCompressor(const kit::StopRequest&) {
  return std::make_unique<testing::FakeCompressor>();
}

std::unique_ptr<const kit::KeyedHash> MemoryMachine::makeKeyedHash() {
  return std::make_unique<testing::FakeKeyedHash>();
}

std::unique_ptr<const kit::JsonCodec> MemoryMachine::makeJsonCodec() {
  return std::make_unique<testing::PlainJsonCodec>();
}

std::unique_ptr<runtime::MachineStore> MemoryMachine::makeStore(const std::string&, kit::LogSink&) {
  return std::make_unique<Store>(device_.store);
}

// No state of a store in memory could hide the wish to be forgotten.
std::unique_ptr<runtime::MachineWishFile> MemoryMachine::makeWishFile(const std::string&) {
  return nullptr;
}

std::unique_ptr<runtime::MachineEraser> MemoryMachine::makeEraser(const std::string&, kit::LogSink&) {
  return std::make_unique<Eraser>(device_);
}

std::unique_ptr<kit::ReportShelf> MemoryMachine::makeReportShelf(const std::string&, const kit::JsonCodec&,
                                                                 kit::LogSink&) {
  return std::make_unique<Shelf>(device_.crash_reports);
}

std::unique_ptr<runtime::MachineThreads> MemoryMachine::makeThreads() {
  return std::make_unique<OnlyThread>();
}

// There is no thread for the kit's own loop: the app pumps in either mode.
std::unique_ptr<runtime::MachineLoop> MemoryMachine::makeMainLoop(morvik::MainQueueMode,
                                                                  const morvik::services::Logger& logger) {
  return std::make_unique<MemoryLoop>(device_.time, thread_, logger);
}

std::unique_ptr<runtime::MachineBackground> MemoryMachine::makeBackground(const morvik::services::Logger& logger) {
  return std::make_unique<MemoryBackground>(thread_, logger);
}

std::unique_ptr<runtime::MachineNetwork> MemoryMachine::makeNetwork(const std::string&) {
  return std::make_unique<Network>(device_);
}

}  // namespace platform
