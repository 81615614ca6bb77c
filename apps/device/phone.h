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
#include "runtime/host.h"
#include "runtime/machine/machine.h"

namespace morvik_device {

class Phone {
 public:
  /// The kit on its store, or one line about why there is none. The calls of its delegates and modules are written to
  /// `output`, which outlives the phone.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const Options& options, Output& output);
  /// The same on another machine, which outlives the phone. Crashes of the process are of no matter there.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const Options& options, Output& output,
                                                                 morvik::runtime::Machine& machine);

  /// Any thread; what it offers says more.
  morvik::runtime::Host& host() { return *host_; }
  StoreView storeView();
  /// By which services know this install.
  std::string installId();
  /// Gives the kit away, for its machine to end it. Nothing else may be asked of the phone afterwards.
  std::unique_ptr<morvik::runtime::Host> releaseHost() { return std::move(host_); }

 private:
  static std::variant<std::unique_ptr<Phone>, std::string> taken(
      std::variant<std::unique_ptr<morvik::runtime::Host>, morvik::kit::Error> made, Output& output);
  Phone(std::unique_ptr<morvik::runtime::Host> host, Output& output);

  // Held weakly by the kit, so they are its last to go.
  std::shared_ptr<const morvik::MorvikCoreDelegate> delegate_of_app_;
  std::shared_ptr<const morvik::kit::SaveFendoUserInfoDelegate> delegate_of_services_;
  std::unique_ptr<morvik::runtime::Host> host_;
};

}  // namespace morvik_device
