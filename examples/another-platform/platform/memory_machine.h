// A complete platform: a device in memory that runs the whole kit and needs no library.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kit/transport.h"
#include "memory_queues.h"
#include "runtime/machine/machine.h"
#include "testing/fake_crypto.h"
#include "testing/fake_siblings.h"
#include "testing/memory_store.h"

namespace platform {

/// The part of the device that outlives the app's processes. Single-threaded.
struct Device {
  DeviceTime time;
  morvik::testing::MemoryStore store;
  morvik::testing::MemoryShelf crash_reports;
  morvik::testing::SeededRandom random;
  /// Log lines of an app without a log_sink.
  std::vector<std::string> log;
  /// The service behind the network; empty: there is no network.
  std::function<morvik::kit::Response(const morvik::kit::Request&)> service;
};

/// One process of the app. The device must outlive it.
class MemoryMachine final : public morvik::runtime::Machine {
 public:
  explicit MemoryMachine(Device& device) : device_(device) {}

  // The device.
  std::unique_ptr<const morvik::runtime::MachineInputs> makeInputs() override;
  std::variant<std::unique_ptr<morvik::runtime::MachineLogSink>, morvik::kit::Error> makeLogSink(
      const std::string& file) override;
  std::unique_ptr<morvik::runtime::MachineClock> makeClock() override;
  std::unique_ptr<morvik::runtime::MachineCalendar> makeCalendar() override;
  std::unique_ptr<morvik::runtime::MachineFacts> makeFacts() override;

  // Computation.
  std::unique_ptr<morvik::kit::Random> makeRandom() override;
  std::unique_ptr<const morvik::kit::Cipher> makeCipher() override;
  std::unique_ptr<const morvik::kit::Compressor> makeCompressor(const morvik::kit::StopRequest& stop) override;
  std::unique_ptr<const morvik::kit::KeyedHash> makeKeyedHash() override;
  std::unique_ptr<const morvik::kit::JsonCodec> makeJsonCodec() override;

  // What is stored.
  std::unique_ptr<morvik::runtime::MachineStore> makeStore(const std::string& folder,
                                                           morvik::kit::LogSink& log) override;
  std::unique_ptr<morvik::runtime::MachineWishFile> makeWishFile(const std::string& folder) override;
  std::unique_ptr<morvik::runtime::MachineEraser> makeEraser(const std::string& folder,
                                                             morvik::kit::LogSink& log) override;
  std::unique_ptr<morvik::kit::ReportShelf> makeReportShelf(const std::string& folder,
                                                            const morvik::kit::JsonCodec& json,
                                                            morvik::kit::LogSink& log) override;

  // What runs.
  bool hasThreads() const override { return false; }
  std::unique_ptr<morvik::runtime::MachineThreads> makeThreads() override;
  std::unique_ptr<morvik::runtime::MachineLoop> makeMainLoop(morvik::MainQueueMode mode,
                                                             const morvik::services::Logger& logger) override;
  std::unique_ptr<morvik::runtime::MachineBackground> makeBackground(const morvik::services::Logger& logger) override;

  // The network.
  std::unique_ptr<morvik::runtime::MachineNetwork> makeNetwork(const std::string& ca_file) override;

 private:
  Device& device_;
  const std::shared_ptr<OneThread> thread_ = std::make_shared<OneThread>();
};

}  // namespace platform
