// The machine that the process runs on.
#pragma once

#include "host/machine/machine.h"

namespace morvik::host {

/// Has no state of its own: what it makes stands for itself.
class SystemMachine : public Machine {
 public:
  std::unique_ptr<const MachineInputs> makeInputs() override;
  std::variant<std::unique_ptr<MachineLogSink>, kit::Error> makeLogSink(const std::string& file) override;
  std::unique_ptr<MachineClock> makeClock() override;
  std::unique_ptr<MachineCalendar> makeCalendar() override;
  std::unique_ptr<kit::Random> makeRandom() override;
  std::unique_ptr<MachineThreads> makeThreads() override;
  std::unique_ptr<MachineFacts> makeFacts() override;
  std::unique_ptr<const kit::Cipher> makeCipher() override;
  std::unique_ptr<const kit::Compressor> makeCompressor(const kit::StopRequest& stop) override;
  std::unique_ptr<const kit::KeyedHash> makeKeyedHash() override;
  std::unique_ptr<const kit::JsonCodec> makeJsonCodec() override;
  std::unique_ptr<MachineEraser> makeEraser(const std::string& folder, kit::LogSink& log) override;
  std::unique_ptr<MachineWishFile> makeWishFile(const std::string& folder) override;
  std::unique_ptr<MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override;
  std::unique_ptr<kit::ReportShelf> makeReportShelf(const std::string& folder, const kit::JsonCodec& json,
                                                    kit::LogSink& log) override;
  std::unique_ptr<MachineCrashes> makeCrashes(const std::string& folder, const kit::JsonCodec& json,
                                              const services::Logger& logger) override;
  std::unique_ptr<MachineLoop> makeMainLoop(MainQueueMode mode, const services::Logger& logger) override;
  std::unique_ptr<MachineBackground> makeBackground(const services::Logger& logger) override;
  std::atomic<uint64_t>& processWord() override;
  std::unique_ptr<MachineNetwork> makeNetwork(const std::string& ca_file) override;
};

}  // namespace morvik::host
