#include "apps/device/phone.h"

#include <utility>

#include "apps/device/option_names.h"
#include "host/make_instance.h"
#include "runtime/siblings/kept_identifier.h"
#include "simulation/levered_machine.h"

namespace morvik_device {
namespace {

namespace host = morvik::host;
namespace runtime = morvik::runtime;
namespace kit = morvik::kit;

std::shared_ptr<const morvik::MorvikCoreDelegate> makeDelegateOfApp(Output& output) {
  auto delegate = std::make_shared<morvik::MorvikCoreDelegate>();
  delegate->didReceiveDeeplink = [&output](const std::string& deeplink) {
    output.callback("didReceiveDeeplink:", {deeplink});
  };
  delegate->didSaveConversionKey = [&output](int64_t conversion_key, const std::string& sub_referral_key) {
    output.callback("didSaveConversionKey:subReferralKey:", {conversion_key, sub_referral_key});
  };
  delegate->didDeliver = [&output](size_t activities) {
    output.callback("didDeliver:", {static_cast<int64_t>(activities)});
  };
  delegate->didFailToDeliver = [&output](const morvik::DeliveryFailure& failure) {
    output.callback("didFailToDeliver:reason:triedAgain:",
                    {failure.http_status, failure.reason, failure.is_tried_again});
  };
  delegate->didRefuseEvent = [&output](morvik::Recorded reason) {
    output.callback("didRefuseEvent:", {kit::Value(morvik::toText(reason))});
  };
  delegate->didAnswerErasure = [&output](bool accepted) { output.callback("didAnswerErasure:", {accepted}); };
  return delegate;
}

std::shared_ptr<const kit::SaveFendoUserInfoDelegate> makeDelegateOfServices(Output& output) {
  auto delegate = std::make_shared<kit::SaveFendoUserInfoDelegate>();
  delegate->didSaveFendoUserInfo = [&output](int64_t user_no, int64_t referral_key, int64_t sub_referral_key,
                                             const std::string& ref_usn, int32_t channel_type) {
    output.callback("didSaveFendoUserInfo:andReferralKey:andSubReferralKey:andRefUSN:andChannelType:",
                    {user_no, referral_key, sub_referral_key, ref_usn, int64_t{channel_type}});
  };
  return delegate;
}

}  // namespace

std::variant<std::unique_ptr<Phone>, std::string> Phone::start(const Options& options, Output& output) {
  morvik::StartOptions start_options = options.start;
  start_options.modules = makeModules(options.modules, output);
  start_options.report_crashes = true;
  auto machine = std::make_unique<morvik::simulation::LeveredMachine>();
  auto& levers = *machine;  // destroyed with the kit
  return taken(host::makeInstance(start_options, std::move(machine)), output, levers);
}

std::variant<std::unique_ptr<Phone>, std::string> Phone::start(const Options& options, Output& output,
                                                               runtime::Machine& machine,
                                                               morvik::simulation::Levers& levers) {
  morvik::StartOptions start_options = options.start;
  start_options.modules = makeModules(options.modules, output);
  return taken(runtime::makeInstance(start_options, machine), output, levers);
}

std::variant<std::unique_ptr<Phone>, std::string> Phone::taken(
    std::variant<std::unique_ptr<runtime::Instance>, kit::Error> made, Output& output,
    morvik::simulation::Levers& levers) {
  if (const auto* error = std::get_if<kit::Error>(&made))
    return withOptionName(error->message);
  return std::unique_ptr<Phone>(
      new Phone(std::move(std::get<std::unique_ptr<runtime::Instance>>(made)), output, levers));
}

Phone::Phone(std::unique_ptr<runtime::Instance> instance, Output& output, morvik::simulation::Levers& levers)
    : delegate_of_app_(makeDelegateOfApp(output)),
      delegate_of_services_(makeDelegateOfServices(output)),
      instance_(std::move(instance)),
      levers_(levers) {
  instance_->setDelegate(delegate_of_app_);
  instance_->setSaveFendoUserInfoDelegate(delegate_of_services_);
}

StoreView Phone::storeView() {
  return StoreView(instance_->properties(), [this](std::string_view key) { return instance_->storedValue(key); });
}

std::string Phone::installId() {
  return std::string(instance_->storedValue(runtime::kInstallIdKey).string());
}

}  // namespace morvik_device
