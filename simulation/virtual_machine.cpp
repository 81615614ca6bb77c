#include "simulation/virtual_machine.h"

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <variant>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/hmac.h"
#include "host/crypto/openssl_cipher.h"
#include "host/json/simdjson_codec.h"
#include "host/posix/log_sinks.h"
#include "host/posix/process_word.h"
#include "host/store/file_eraser.h"
#include "host/store/sqlite_store.h"
#include "host/store/wish_file.h"
#include "host/system_inputs.h"
#include "kit/MorvikADUtil.h"
#include "kit/list_lock.h"
#include "runtime/machine/take_over_table.h"
#include "runtime/make_instance.h"
#include "services/MorvikGVUserDefaults.h"
#include "simulation/virtual_flusher.h"
#include "simulation/virtual_machine_loop.h"
#include "testing/fake_calendar.h"

namespace morvik::simulation {
namespace {

/// The system's, except for the folders, which are named but not created.
class VirtualInputs final : public host::SystemInputs {
 public:
  std::optional<kit::Error> checkPlaces(const StartOptions&) const override { return std::nullopt; }
  std::string absolutePath(const std::string& path) const override { return path; }
};

class VirtualClock final : public runtime::MachineClock {
 public:
  explicit VirtualClock(testing::VirtualLoop& loop) : loop_(loop) {}
  kit::Date now() const override { return loop_.now(); }
  // Nobody here waits by the real machine's clock, but its readers must see time pass.
  std::chrono::steady_clock::time_point steadyNow() const override { return std::chrono::steady_clock::now(); }

 private:
  testing::VirtualLoop& loop_;
};

class VirtualCalendar final : public runtime::MachineCalendar {
 public:
  VirtualCalendar(std::shared_ptr<const kit::Calendar> calendar, std::string zone_name)
      : calendar_(std::move(calendar)), zone_name_(std::move(zone_name)) {}
  kit::CalendarComponents components(kit::Date date) const override { return calendar_->components(date); }
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override {
    return calendar_->date(components);
  }
  std::string zoneName() const override { return zone_name_; }

 private:
  const std::shared_ptr<const kit::Calendar> calendar_;
  const std::string zone_name_;
};

/// One thread stands for all threads.
class VirtualThreads final : public runtime::MachineThreads {
 public:
  std::string currentThreadDescription() const override { return testing::FakeThreads().currentThreadDescription(); }
  std::variant<std::unique_ptr<runtime::MachineThread>, kit::Error> start(const char*, std::function<void()>) override {
    return kit::Error{"a virtual machine has no threads"};
  }
};

/// The machine's own source, which continues from process to process.
class SharedRandom final : public kit::Random {
 public:
  explicit SharedRandom(kit::Random& source) : source_(source) {}
  void fill(std::span<uint8_t> bytes) override { source_.fill(bytes); }

 private:
  kit::Random& source_;
};

class VirtualFacts final : public runtime::MachineFacts {
 public:
  VirtualFacts(const VirtualMachineOptions& options, const bool& is_offline)
      : options_(options), is_offline_(is_offline) {}
  std::string networkStatus(bool) const override {
    return is_offline_ ? kit::kNetworkUnknown : options_.network_status;
  }
  std::optional<int64_t> freeDiskBytes(const std::string&) const override { return options_.free_disk_bytes; }
  uint32_t freeMemoryKibibytes() const override { return options_.free_memory_kibibytes; }

 private:
  const VirtualMachineOptions& options_;
  const bool& is_offline_;
};

/// One process's store.
class VirtualStore final : public runtime::MachineStore {
 public:
  explicit VirtualStore(testing::MemoryStore& store) : store_(store) {}
  kit::Value get(std::string_view key) const override { return store_.get(key); }
  void set(std::string_view key, kit::Value value) override { store_.set(key, std::move(value)); }
  void append(std::string_view key, kit::Value element) override { store_.append(key, std::move(element)); }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    store_.replace(key, before, std::move(after));
  }
  // There is one thread: nothing can come in between.
  void setTogether(std::span<runtime::StoreWrite> writes) override {
    for (runtime::StoreWrite& write : writes)
      store_.set(write.key, std::move(write.value));
  }
  bool synchronize() override { return store_.synchronize(); }
  std::optional<kit::Value> tryGet(std::string_view key) const override { return store_.tryGet(key); }
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override {
    return store_.trySetAndSynchronize(key, std::move(value));
  }
  runtime::StoreOpening opening() const override { return runtime::StoreOpening::kOpened; }
  const std::string& openingLine() const override { return opening_line_; }
  void setWhenTakenOver(kit::Block) override {}
  bool commitTurn() override {
    store_.commitTurn();
    return true;
  }
  bool synchronizeUntold() override { return store_.synchronize(); }
  void tellWaiting() override {}
  bool isKept() const override { return store_.uncommittedWrites() == 0; }
  std::vector<std::pair<std::string, kit::Value>> all() const override {
    const auto contents = store_.contents();
    return {contents.begin(), contents.end()};
  }
  void flushNow() override {}
  void flushSoon() override {}
  void setWhenFlushed(kit::Block) override {}
  void beginToEnd() override {}
  // Every turn is committed; there is no disk to wait for.
  void shutdown() override {}

 private:
  testing::MemoryStore& store_;
  const std::string opening_line_;
};

/// A file outside the store: changes after the disk was cut off are lost here too.
class SharedShelf final : public kit::ReportShelf {
 public:
  SharedShelf(kit::ReportShelf& shelf, const SimulatedDisk* disk) : shelf_(shelf), disk_(disk) {}
  std::optional<kit::Error> append(const kit::Value& report) override {
    return isCut() ? std::nullopt : shelf_.append(report);
  }
  kit::Array reports() override { return shelf_.reports(); }
  void clear() override {
    if (!isCut())
      shelf_.clear();
  }

 private:
  bool isCut() const { return disk_ != nullptr && disk_->isCut(); }

  kit::ReportShelf& shelf_;
  const SimulatedDisk* const disk_;
};

/// One process's network.
class VirtualNetwork final : public runtime::MachineNetwork {
 public:
  explicit VirtualNetwork(testing::ScriptedTransport& network) : network_(network) {}
  void begin(kit::Request request, runtime::TransportHandler done) override {
    // Connections are established at once.
    if (request.may_leave && !request.may_leave())
      return done({});
    network_.start(std::move(request), std::move(done));
  }
  void shutdown() override { network_.kill(); }

 private:
  testing::ScriptedTransport& network_;
};

/// For a store in memory, where nothing can come in between.
class MemoryEraser final : public runtime::MachineEraser {
 public:
  MemoryEraser(testing::MemoryStore& store, kit::ReportShelf& shelf) : store_(store), shelf_(shelf) {}
  std::optional<kit::Error> resume() override { return std::nullopt; }
  bool isDue() const override { return false; }
  std::optional<kit::Error> begin(runtime::KeptWish) override { return std::nullopt; }
  std::optional<kit::Error> finish(runtime::KeptWish wish) override {
    for (const auto& [key, value] : store_.contents())
      store_.set(key, {});
    kit::ListLock lock;
    const services::MorvikGVUserDefaults fresh(store_, lock);
    if (wish.is_forgotten)
      fresh.setMorvikCoreUserInfo_isGDPRForgetMe(true);
    if (wish.is_synced)
      fresh.setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
    store_.synchronize();
    shelf_.clear();
    return std::nullopt;
  }

 private:
  testing::MemoryStore& store_;
  kit::ReportShelf& shelf_;
};

}  // namespace

StartOptions simulatedApp() {
  StartOptions app;
  app.store_folder = "/virtual";
  app.app_key = "app";
  app.hash_key = "hash";
  app.tracking_key = "tracking";
  app.service_url = "https://service.example/";
  app.log_level = 2;  // the store's messages are to be visible
  app.log_sink = [](std::string_view) {};
  return app;
}

VirtualMachine::VirtualMachine(VirtualMachineOptions options)
    : loop(options.loop), store(options.store), random(options.seed), options_([&options] {
        if (!options.calendar)
          options.calendar = std::make_shared<testing::FixedOffsetCalendar>();
        return std::move(options);
      }()) {}

VirtualMachine::~VirtualMachine() = default;

std::unique_ptr<runtime::Instance> VirtualMachine::start(const StartOptions& options) {
  auto made = runtime::makeInstance(options, *this);
  if (const auto* error = std::get_if<kit::Error>(&made))
    throw std::runtime_error("virtual machine: the host did not start: " + error->message);
  return std::move(std::get<std::unique_ptr<runtime::Instance>>(made));
}

void VirtualMachine::kill(std::unique_ptr<runtime::Instance> process, const DiskCut& cut) {
  if (options_.disk != nullptr)
    options_.disk->cutNow();
  store.kill();
  transport.kill();
  loop.kill();
  process.reset();
  store.kill();  // also discards what its destruction would have written
  if (options_.disk != nullptr)
    options_.disk->restart(cut);
}

void VirtualMachine::after(double delay_seconds, kit::Block block) {
  loop.schedule(delay_seconds, std::move(block));
}

void VirtualMachine::edit(std::string_view key, kit::Value value) {
  if (editor_)
    editor_(key, std::move(value));
}

std::unique_ptr<const runtime::MachineInputs> VirtualMachine::makeInputs() {
  return std::make_unique<VirtualInputs>();
}

std::variant<std::unique_ptr<runtime::MachineLogSink>, kit::Error> VirtualMachine::makeLogSink(
    const std::string& file) {
  return host::makeSystemLogSink(file);
}

std::unique_ptr<runtime::MachineClock> VirtualMachine::makeClock() {
  return std::make_unique<VirtualClock>(loop);
}

std::unique_ptr<runtime::MachineCalendar> VirtualMachine::makeCalendar() {
  return std::make_unique<VirtualCalendar>(options_.calendar, options_.zone_name);
}

std::unique_ptr<kit::Random> VirtualMachine::makeRandom() {
  return std::make_unique<SharedRandom>(random);
}

std::unique_ptr<runtime::MachineThreads> VirtualMachine::makeThreads() {
  return std::make_unique<VirtualThreads>();
}

std::unique_ptr<runtime::MachineFacts> VirtualMachine::makeFacts() {
  return std::make_unique<VirtualFacts>(options_, is_offline_);
}

std::unique_ptr<const kit::Cipher> VirtualMachine::makeCipher() {
  return std::make_unique<host::OpensslCipher>();
}

std::unique_ptr<const kit::Compressor> VirtualMachine::makeCompressor(const kit::StopRequest& stop) {
  return std::make_unique<host::ZlibCompressor>(&stop);
}

std::unique_ptr<const kit::KeyedHash> VirtualMachine::makeKeyedHash() {
  return std::make_unique<host::OpensslKeyedHash>();
}

std::unique_ptr<const kit::JsonCodec> VirtualMachine::makeJsonCodec() {
  return std::make_unique<host::SimdjsonCodec>();
}

host::SqliteStoreOptions VirtualMachine::storeOptions() {
  return {.place = options_.disk->place(),
          .take_over = runtime::takeOverTable(),
          .make_flusher = flushesOn(loop, [this] { return sync_seconds; })};
}

std::unique_ptr<runtime::MachineEraser> VirtualMachine::makeEraser(const std::string& folder, kit::LogSink& log) {
  if (options_.disk == nullptr)
    return std::make_unique<MemoryEraser>(store, report_shelf);
  return std::make_unique<host::FileEraser>(
      host::FileEraserParts{.place = options_.disk->place(),
                            .open_store = [this, folder, &log] { return VirtualMachine::makeStore(folder, log); },
                            .remove_more =
                                [this] {
                                  if (!options_.disk->isCut())
                                    report_shelf.clear();
                                }});
}

/// A store in memory can always be read.
std::unique_ptr<runtime::MachineWishFile> VirtualMachine::makeWishFile(const std::string&) {
  return options_.disk == nullptr ? nullptr : std::make_unique<host::WishFile>(options_.disk->place());
}

std::unique_ptr<runtime::MachineStore> VirtualMachine::makeStore(const std::string&, kit::LogSink& log) {
  if (options_.disk != nullptr)
    return std::make_unique<host::SqliteStore>(storeOptions(), log);
  return std::make_unique<VirtualStore>(store);
}

std::unique_ptr<kit::ReportShelf> VirtualMachine::makeReportShelf(const std::string&, const kit::JsonCodec&,
                                                                  kit::LogSink&) {
  return std::make_unique<SharedShelf>(report_shelf, options_.disk);
}

std::unique_ptr<runtime::MachineLoop> VirtualMachine::makeMainLoop(MainQueueMode, const services::Logger& logger) {
  return std::make_unique<VirtualMainLoop>(loop, logger);
}

std::unique_ptr<runtime::MachineBackground> VirtualMachine::makeBackground(const services::Logger& logger) {
  return std::make_unique<VirtualBackground>(loop, logger);
}

std::atomic<uint64_t>& VirtualMachine::processWord() {
  return host::processWord();
}

std::unique_ptr<runtime::MachineNetwork> VirtualMachine::makeNetwork(const std::string&) {
  return std::make_unique<VirtualNetwork>(transport);
}

}  // namespace morvik::simulation
