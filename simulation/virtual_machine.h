// A machine with virtual time, a disk in memory and a scripted network. The complete kit runs on it, with all its
// sibling components: what happens here happens in an app.
//
//   simulation::VirtualMachine machine;
//   auto instance = machine.start(options);      // one process
//   instance->addActivity("shop", "purchase", {});
//   machine.loop.advance(60);
//   machine.kill(std::move(instance));           // dies at once: uncommitted writes are lost
//   instance = machine.start(options);           // the next process finds the rest
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "kit/clock.h"
#include "morvik/start_options.h"
#include "runtime/instance.h"
#include "runtime/machine/machine.h"
#include "simulation/levers.h"
#include "simulation/simulated_disk.h"
#include "testing/fake_crypto.h"
#include "testing/fake_siblings.h"
#include "testing/memory_store.h"
#include "testing/scripted_transport.h"
#include "testing/virtual_loop.h"

namespace morvik::host {
struct SqliteStoreOptions;
}

namespace morvik::simulation {

struct VirtualMachineOptions {
  testing::VirtualLoopOptions loop;
  /// The device's zone; null: UTC.
  std::shared_ptr<const kit::Calendar> calendar;
  std::string zone_name = "UTC";
  uint64_t seed = 1;
  /// What an earlier process left in the store.
  testing::MemoryStore::Contents store;
  /// Runs the real store on this disk; null: a MemoryStore. Must outlive the machine.
  SimulatedDisk* disk = nullptr;
  std::string network_status = "wifi";
  int64_t free_disk_bytes = 8'000'000'000;
  uint32_t free_memory_kibibytes = 831'898;
};

/// The options with which an app on such a machine starts: its keys, one service for everything, and a log sink that
/// discards its lines. The store folder is named but not created. The caller changes what differs.
StartOptions simulatedApp();

/// Use from one thread. All public members outlive the processes.
class VirtualMachine : public runtime::Machine, public Levers {
 public:
  explicit VirtualMachine(VirtualMachineOptions options = {});
  ~VirtualMachine() override;

  testing::VirtualLoop loop;
  testing::MemoryStore store;  ///< unused if there is a disk
  testing::ScriptedTransport transport{loop};
  testing::SeededRandom random;
  testing::MemoryShelf report_shelf;
  /// How long a flush of the real store takes: data is on the disk only at its end.
  double sync_seconds = 0;

  /// Starts a process: the kit on this machine. One at a time. std::runtime_error if the options are refused.
  std::unique_ptr<runtime::Instance> start(const StartOptions& options);
  /// The process dies at once: uncommitted writes are lost, and nothing of it runs any more. Between turns only. `cut`:
  /// how the disk is cut off, if there is one and it was not cut off before.
  void kill(std::unique_ptr<runtime::Instance> process, const DiskCut& cut = DiskCut::killed());

  void moveClock(double seconds) override { loop.moveWallClock(seconds); }
  void setOffline(bool offline) override { is_offline_ = offline; }
  void after(double delay_seconds, kit::Block block) override;
  void edit(std::string_view key, kit::Value value) override;

  std::unique_ptr<const runtime::MachineInputs> makeInputs() override;
  std::variant<std::unique_ptr<runtime::MachineLogSink>, kit::Error> makeLogSink(const std::string& file) override;
  std::unique_ptr<runtime::MachineClock> makeClock() override;
  std::unique_ptr<runtime::MachineCalendar> makeCalendar() override;
  std::unique_ptr<kit::Random> makeRandom() override;
  std::unique_ptr<runtime::MachineThreads> makeThreads() override;
  std::unique_ptr<runtime::MachineFacts> makeFacts() override;
  std::unique_ptr<const kit::Cipher> makeCipher() override;
  std::unique_ptr<const kit::Compressor> makeCompressor(const kit::StopRequest& stop) override;
  std::unique_ptr<const kit::KeyedHash> makeKeyedHash() override;
  std::unique_ptr<const kit::JsonCodec> makeJsonCodec() override;
  std::unique_ptr<runtime::MachineEraser> makeEraser(const std::string& folder, kit::LogSink& log) override;
  std::unique_ptr<runtime::MachineWishFile> makeWishFile(const std::string& folder) override;
  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override;
  std::unique_ptr<kit::ReportShelf> makeReportShelf(const std::string& folder, const kit::JsonCodec& json,
                                                    kit::LogSink& log) override;
  std::unique_ptr<runtime::MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) override;
  std::unique_ptr<runtime::MachineBackground> makeBackground(const services::Logger& logger) override;
  void takeEditor(const runtime::StoreEditor& editor) override { editor_ = editor; }
  bool hasThreads() const override { return false; }
  std::atomic<uint64_t>& processWord() override;
  std::unique_ptr<runtime::MachineNetwork> makeNetwork(const std::string& ca_file) override;

 protected:
  /// For the real store on the disk, if there is one.
  host::SqliteStoreOptions storeOptions();

 private:
  const VirtualMachineOptions options_;
  bool is_offline_ = false;
  runtime::StoreEditor editor_;  ///< the latest process's
};

}  // namespace morvik::simulation
