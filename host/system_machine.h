// The machine that the process runs on.
#pragma once

#include "runtime/machine/machine.h"

namespace morvik::host {

/// Stateless: what it makes is self-contained.
class SystemMachine : public runtime::Machine {
 public:
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
  std::unique_ptr<runtime::MachineCrashes> makeCrashes(const std::string& folder, const kit::JsonCodec& json,
                                                       const services::Logger& logger) override;
  std::unique_ptr<runtime::MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) override;
  std::unique_ptr<runtime::MachineBackground> makeBackground(const services::Logger& logger) override;
  std::atomic<uint64_t>& processWord() override;
  std::unique_ptr<runtime::MachineNetwork> makeNetwork(const std::string& ca_file) override;
};

}  // namespace morvik::host
