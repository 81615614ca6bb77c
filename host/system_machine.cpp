#include "host/system_machine.h"

#include "host/compress/zlib_compressor.h"
#include "host/crypto/hmac.h"
#include "host/crypto/openssl_cipher.h"
#include "host/json/simdjson_codec.h"
#include "host/linux/crash/system_crashes.h"
#include "host/linux/system_facts.h"
#include "host/linux/system_random.h"
#include "host/linux/system_threads.h"
#include "host/loop/main_loop.h"
#include "host/net/curl_transport.h"
#include "host/posix/background_thread.h"
#include "host/posix/log_sinks.h"
#include "host/posix/process_word.h"
#include "host/posix/report_file.h"
#include "host/posix/system_clock.h"
#include "host/store/file_eraser.h"
#include "host/store/sqlite_store.h"
#include "host/store/wish_file.h"
#include "host/system_inputs.h"
#include "runtime/machine/take_over_table.h"

namespace morvik::host {

std::unique_ptr<const runtime::MachineInputs> SystemMachine::makeInputs() {
  return std::make_unique<SystemInputs>();
}

std::variant<std::unique_ptr<runtime::MachineLogSink>, kit::Error> SystemMachine::makeLogSink(const std::string& file) {
  return makeSystemLogSink(file);
}

std::unique_ptr<runtime::MachineClock> SystemMachine::makeClock() {
  return std::make_unique<SystemClock>();
}

std::unique_ptr<runtime::MachineCalendar> SystemMachine::makeCalendar() {
  return std::make_unique<SystemCalendar>();
}

std::unique_ptr<kit::Random> SystemMachine::makeRandom() {
  return std::make_unique<SystemRandom>();
}

std::unique_ptr<runtime::MachineThreads> SystemMachine::makeThreads() {
  return std::make_unique<SystemThreads>();
}

std::unique_ptr<runtime::MachineFacts> SystemMachine::makeFacts() {
  return std::make_unique<SystemFacts>();
}

std::unique_ptr<const kit::Cipher> SystemMachine::makeCipher() {
  return std::make_unique<OpensslCipher>();
}

std::unique_ptr<const kit::Compressor> SystemMachine::makeCompressor(const kit::StopRequest& stop) {
  return std::make_unique<ZlibCompressor>(&stop);
}

std::unique_ptr<const kit::KeyedHash> SystemMachine::makeKeyedHash() {
  return std::make_unique<OpensslKeyedHash>();
}

std::unique_ptr<const kit::JsonCodec> SystemMachine::makeJsonCodec() {
  return std::make_unique<SimdjsonCodec>();
}

std::unique_ptr<runtime::MachineEraser> SystemMachine::makeEraser(const std::string& folder, kit::LogSink& log) {
  return std::make_unique<FileEraser>(FileEraserParts{
      .place = {.folder = folder}, .open_store = [folder, &log] { return SystemMachine().makeStore(folder, log); }});
}

std::unique_ptr<runtime::MachineWishFile> SystemMachine::makeWishFile(const std::string& folder) {
  return std::make_unique<WishFile>(StorePlace{.folder = folder});
}

std::unique_ptr<runtime::MachineStore> SystemMachine::makeStore(const std::string& folder, kit::LogSink& log) {
  return std::make_unique<SqliteStore>(
      SqliteStoreOptions{.place = {.folder = folder}, .take_over = runtime::takeOverTable()}, log);
}

std::unique_ptr<kit::ReportShelf> SystemMachine::makeReportShelf(const std::string& folder, const kit::JsonCodec& json,
                                                                 kit::LogSink& log) {
  return std::make_unique<ReportFile>(folder, json, log);
}

std::unique_ptr<runtime::MachineCrashes> SystemMachine::makeCrashes(const std::string& folder,
                                                                    const kit::JsonCodec& json,
                                                                    const services::Logger& logger) {
  return std::make_unique<SystemCrashes>(folder, json, logger);
}

std::unique_ptr<runtime::MachineLoop> SystemMachine::makeMainLoop(MainQueueMode mode, const services::Logger& logger) {
  return std::make_unique<MainLoop>(mode == MainQueueMode::kPumped ? LoopMode::kPumped : LoopMode::kOwnThread, logger);
}

std::unique_ptr<runtime::MachineBackground> SystemMachine::makeBackground(const services::Logger& logger) {
  return std::make_unique<BackgroundThread>(logger);
}

std::atomic<uint64_t>& SystemMachine::processWord() {
  return host::processWord();
}

std::unique_ptr<runtime::MachineNetwork> SystemMachine::makeNetwork(const std::string& ca_file) {
  return std::make_unique<CurlTransport>(CurlTransportOptions{.ca_file = ca_file});
}

}  // namespace morvik::host
