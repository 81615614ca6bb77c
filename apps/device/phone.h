// A device with an app on it: the kit as an app uses it, with a delegate that prints every call.
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
  /// Starts the kit on its store, or returns one line about why that failed. The calls of its delegates and modules are
  /// written to `output`, which outlives the phone.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const Options& options, Output& output);
  /// The same on another machine, which outlives the phone, as do its levers. Crashes of the process are not reported
  /// there.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const Options& options, Output& output,
                                                                 morvik::runtime::Machine& machine,
                                                                 morvik::simulation::Levers& levers);

  /// Any thread; see Instance for its functions.
  morvik::runtime::Instance& instance() { return *instance_; }
  /// The levers of its machine. They take effect at once.
  morvik::simulation::Levers& levers() { return levers_; }
  StoreView storeView();
  /// The id under which services know this install.
  std::string installId();
  /// Releases the kit, for its machine to end it. The phone must not be used afterwards.
  std::unique_ptr<morvik::runtime::Instance> releaseInstance() { return std::move(instance_); }

 private:
  static std::variant<std::unique_ptr<Phone>, std::string> taken(
      std::variant<std::unique_ptr<morvik::runtime::Instance>, morvik::kit::Error> made, Output& output,
      morvik::simulation::Levers& levers);
  Phone(std::unique_ptr<morvik::runtime::Instance> instance, Output& output, morvik::simulation::Levers& levers);

  // The kit holds these weakly, so they outlive it.
  std::shared_ptr<const morvik::MorvikCoreDelegate> delegate_of_app_;
  std::shared_ptr<const morvik::kit::SaveFendoUserInfoDelegate> delegate_of_services_;
  std::unique_ptr<morvik::runtime::Instance> instance_;
  morvik::simulation::Levers& levers_;
};

}  // namespace morvik_device
