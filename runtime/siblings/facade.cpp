#include "runtime/siblings/facade.h"

#include "runtime/life/call_app.h"

namespace morvik::runtime {

std::shared_ptr<const kit::FacadeDelegate> Facade::delegate() const {
  const std::shared_ptr<const MorvikCoreDelegate> of_app = delegateOfApp();
  if (of_app == nullptr)
    return nullptr;
  auto delegate = std::make_shared<kit::FacadeDelegate>();
  if (of_app->didReceiveDeeplink)
    delegate->didReceiveDeeplink = [of_app](const std::string& deeplink) {
      callApp(of_app->didReceiveDeeplink, deeplink);
    };
  if (of_app->didSaveConversionKey) {
    delegate->didSaveConversionKey = [of_app](int64_t conversion_key, const std::string& sub_referral_key) {
      callApp(of_app->didSaveConversionKey, conversion_key, sub_referral_key);
    };
  }
  return delegate;
}

}  // namespace morvik::runtime
