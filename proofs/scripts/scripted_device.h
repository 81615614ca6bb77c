// What a scripted run does with its device, chapter by chapter: operations of its app, ends of its processes, and the
// misbehaviour that each endpoint shows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "proofs/run/app.h"
#include "proofs/run/driver.h"
#include "simulation/simulated_disk.h"
#include "testing/service_endpoint.h"

namespace morvik::proofs {

/// After each operation the device is checked. What comes after the disk was cut off does nothing.
class ScriptedDevice : protected Driver {
 protected:
  /// `cut`: what a process dies of whose disk is cut off.
  ScriptedDevice(DriverOptions options, const simulation::DiskCut& cut) : Driver(std::move(options)), cut_(cut) {}

  std::string nextName(const char* what);

  /// What was asked for happens, and no time passes.
  void runTurns();
  /// Time passes, until the disk is cut off at the latest.
  void pass(double seconds);
  void checkIfAlive();

  void openSession();
  void leaveSession();

  void startBatch();
  void pushTracking();

  void record(int count, size_t padding = 0);
  void recordEvent(size_t padding = 0);
  void offerTooMuch();
  void addImpression();
  void openReEngagementLink(double then_pass_seconds = 5);
  void openCommerceLink(double then_pass_seconds = 5);
  void setUserId();
  /// The process dies of it, and not by itself.
  void reportCrash();

  void wish(bool forget_me);
  /// Where there is a network an accepted withdrawal would count as another wish to be forgotten.
  void withdraw();

  void stop();
  /// What was cut off already died of that, whatever the script has in store for it.
  void die(const simulation::DiskCut& scripted);
  void endCutProcess();
  void leaveTheStore();

  RunApp app_does_{*this};
  std::map<testing::ServiceEndpoint, Misbehaviour> misbehaviours_;
  double slow_sync_seconds_ = 0;  ///< of processes that start

 private:
  Treatment treatmentOf(const kit::Request& request) override;
  double drawSyncSeconds() override;

  /// On a machine the log is synced and written back while the app goes on: now and then something is recorded between
  /// two calls of it.
  void diskCalled(const simulation::DiskCall& call) override;
  /// What goes to the file itself in a turn of the loop, but for its first page, which is also written when a fresh
  /// file is made, with commits held off.
  bool isWrittenBack(const simulation::DiskCall& call);
  bool isFirstSyncOfASlowDisk(const simulation::DiskCall& call);

  const simulation::DiskCut cut_;
  uint64_t written_back_calls_ = 0;
  uint64_t last_name_ = 0;
};

}  // namespace morvik::proofs
