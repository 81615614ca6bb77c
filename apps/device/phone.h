// The device with the app on it: the kit as an app has it, with a delegate that tells of every call.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "apps/device/options.h"
#include "apps/device/output.h"
#include "apps/device/store_view.h"
#include "kit/MorvikCoreServicesLib.h"
#include "morvik/morvik.h"
#include "runtime/instance.h"
#include "runtime/machine/machine.h"
#include "simulation/levers.h"

namespace morvik_device {

class Phone {
 public:
  /// The kit on its store, or one line about why there is none. The calls of its delegates and modules are written to
  /// `output`, which outlives the phone.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const Options& options, Output& output);
  /// The same on another machine, which outlives the phone, and so do its levers. Crashes of the process are of no
  /// matter there.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const Options& options, Output& output,
                                                                 morvik::runtime::Machine& machine,
                                                                 morvik::simulation::Levers& levers);

  /// Any thread; what it offers says more.
  morvik::runtime::Instance& instance() { return *instance_; }
  /// Of its machine. What they do is done at once.
  morvik::simulation::Levers& levers() { return levers_; }
  StoreView storeView();
  /// By which services know this install.
  std::string installId();
  /// Gives the kit away, for its machine to end it. Nothing else may be asked of the phone afterwards.
  std::unique_ptr<morvik::runtime::Instance> releaseInstance() { return std::move(instance_); }

 private:
  static std::variant<std::unique_ptr<Phone>, std::string> taken(
      std::variant<std::unique_ptr<morvik::runtime::Instance>, morvik::kit::Error> made, Output& output,
      morvik::simulation::Levers& levers);
  Phone(std::unique_ptr<morvik::runtime::Instance> instance, Output& output, morvik::simulation::Levers& levers);

  // Held weakly by the kit, so they are its last to go.
  std::shared_ptr<const morvik::MorvikCoreDelegate> delegate_of_app_;
  std::shared_ptr<const morvik::kit::SaveFendoUserInfoDelegate> delegate_of_services_;
  std::unique_ptr<morvik::runtime::Instance> instance_;
  morvik::simulation::Levers& levers_;
};

}  // namespace morvik_device
