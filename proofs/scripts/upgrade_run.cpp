#include "proofs/scripts/upgrade_run.h"

#include <memory>
#include <string_view>
#include <utility>

#include "host/store/store_files.h"
#include "services/json_writer.h"
#include "simulation/virtual_machine.h"
#include "simulation/virtual_service.h"

namespace morvik::proofs {
namespace {

using testing::Answer;
using testing::ServedRequest;
using testing::ServiceEndpoint;

/// A device on a disk, and the service behind its network.
class UpgradeRun {
 public:
  explicit UpgradeRun(uint64_t seed) : machine_({.seed = seed, .disk = &disk_}) {
    machine_.transport.on("").alwaysBy([this](const kit::Request& request) { return serve(request); });
  }

  void put(const StoreFilesKept& files) {
    for (const auto& [name, bytes] : files)
      disk_.put(disk_.place().folder + "/" + name, bytes);
  }
  StoreFilesKept files() {
    StoreFilesKept all;
    const std::string folder = disk_.place().folder + "/";
    for (const std::string& path : disk_.paths())
      all[path.substr(folder.size())] = disk_.bytesOf(path);
    return all;
  }

  void start() {
    StartOptions options = simulation::simulatedApp();
    options.log_sink = [this](std::string_view line) {
      if (line.find("the store") != std::string_view::npos)
        result.store_lines.emplace_back(line);
    };
    process_ = machine_.start(options);
    machine_.loop.runUntilIdle();
  }
  runtime::Instance& process() { return *process_; }
  void pass(double seconds) { machine_.loop.advance(seconds); }
  void openSession() {
    process_->applicationDidBecomeActive();
    pass(5);
  }
  void leaveSession() {
    process_->applicationDidEnterBackground();
    pass(60);
  }
  void record(const std::string& param) {
    process_->addActivity("shop", "purchase", param);
    pass(1);
  }
  void addImpression() {
    const auto properties = process_->properties();
    const kit::Value impression =
        kit::Dictionary{{"campaignKey", 7}, {"spaceKey", kUpgradeRunImpression}, {"createdAt", machine_.loop.now()}};
    properties.setFendoImpressionInfos(kit::Value(kit::Array{impression}));
    properties.synchronize();
  }
  void stop() {
    process_->stop();
    process_.reset();
  }
  void kill() { machine_.kill(std::move(process_)); }
  void goOffline() { machine_.transport.goOffline(); }
  std::string stored() const {
    std::string all;
    for (const auto& [name, value] : process_->allStored())
      all += name + " " + services::jsonDescription(value) + "\n";
    return all;
  }

  UpgradeRunContinued result;

 private:
  Answer serve(const kit::Request& request) {
    const ServedRequest served = service_->receive(request);
    result.arrived += services::jsonDescription(served.payload) + "\n";
    if (served.endpoint == ServiceEndpoint::kTracking) {
      result.install_id = served.payload["install_id"].string();
      for (const kit::Value& event : served.payload["activity_info"].array()) {
        if (event["group"].string() == "shop")
          result.events.emplace_back(event["param"].string());
      }
    }
    result.installs = service_->installs();
    Answer answer = service_->answer(served);
    result.installs = service_->installs();
    return answer;
  }

  simulation::SimulatedDisk disk_;
  simulation::VirtualMachine machine_;
  simulation::VirtualService service_{[this] { return machine_.loop.now(); }, 0};
  std::unique_ptr<runtime::Instance> process_;
};

}  // namespace

std::string upgradeRunEvent(size_t number) {
  return "kept event " + std::to_string(number);
}

StoreFilesKept storeOfADeviceThatDied() {
  UpgradeRun run(1);
  run.start();
  run.openSession();
  run.leaveSession();
  run.goOffline();
  run.openSession();
  for (size_t number = 0; number < kUpgradeRunEvents / 2; ++number)
    run.record(upgradeRunEvent(number));
  run.process().passOpenURL("shop://offer?ck=501&sn=9001&mrvk_eng=1&sub_referral=" + std::string(kUpgradeRunClick));
  run.pass(2);
  run.process().passOpenURL("shop://offer?cid=" + std::string(kUpgradeRunCommerceClick));
  run.pass(2);
  run.process().setUserId("replaced user");
  run.process().setUserId(kUpgradeRunUser);
  run.pass(2);
  run.stop();
  run.start();
  run.addImpression();
  for (size_t number = kUpgradeRunEvents / 2; number < kUpgradeRunEvents; ++number)
    run.record(upgradeRunEvent(number));
  run.process().reportUncaughtException({.reason = kUpgradeRunCrash, .call_stack_symbols = {}, .moment = std::nullopt});
  run.kill();
  return run.files();
}

UpgradeRunContinued continueUpgradeRun(const StoreFilesKept& files) {
  UpgradeRun run(2);  // by chance it would not become the same device again
  run.put(files);
  run.pass(86'400);
  run.start();
  run.result.ledger_found = run.process().ledger();
  run.openSession();
  run.record("later event");
  run.process().passOpenURL("shop://offer?cid=later-commerce-click");  // takes those before it along
  run.pass(2);
  run.leaveSession();
  run.pass(3'600);
  run.openSession();
  run.leaveSession();
  run.result.stored = run.stored();
  run.result.ledger = run.process().ledger();
  run.stop();
  return std::move(run.result);
}

}  // namespace morvik::proofs
