#include "testing/fake_facade.h"

namespace morvik::testing {
namespace {

class FreshConfig : public kit::MorvkSDKConfig {
 public:
  explicit FreshConfig(const kit::MorvkSDKConfig& config) : config_(config) {}
  std::string getTrackingSuperkey() const override { return config_.getTrackingSuperkey(); }

 private:
  const kit::MorvkSDKConfig& config_;
};

}  // namespace

std::unique_ptr<kit::MorvkSDKConfig> freshConfig(const kit::MorvkSDKConfig& config) {
  return std::make_unique<FreshConfig>(config);
}

RecordingDelegate::RecordingDelegate() {
  // The slots own what they write to: they may be called for as long as somebody holds the delegate.
  of_facade->didReceiveDeeplink = [calls = calls_](const std::string& deeplink) {
    calls->add("didReceiveDeeplink: " + deeplink);
  };
  of_facade->didSaveConversionKey = [calls = calls_](int64_t conversion_key, const std::string& sub_referral_key) {
    calls->add("didSaveConversionKey: " + std::to_string(conversion_key) + ", " + sub_referral_key);
  };
  of_services->didSaveFendoUserInfo = [calls = calls_](int64_t fendo_user_no, int64_t referral_key,
                                                       int64_t sub_referral_key, const std::string& ref_usn,
                                                       int32_t channel_type) {
    calls->add("didSaveFendoUserInfo: " + std::to_string(fendo_user_no) + ", " + std::to_string(referral_key) + ", " +
               std::to_string(sub_referral_key) + ", " + ref_usn + ", " + std::to_string(channel_type));
  };
}

}  // namespace morvik::testing
