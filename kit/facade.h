// The public facade of the kit, as the core object sees it: holds the app's delegate.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace morvik::kit {

/// The app's delegate. Every slot is optional. All are called on the main queue.
struct FacadeDelegate {
  /// A deferred deep link arrived with the install's attribution.
  std::function<void(const std::string& deeplink)> didReceiveDeeplink;
  /// The referral record was stored.
  std::function<void(int64_t conversion_key, const std::string& sub_referral_key)> didSaveConversionKey;
};

class Facade {
 public:
  virtual ~Facade() = default;
  /// The shared facade's delegate, held weakly; null if there is none or it is gone. Any thread.
  virtual std::shared_ptr<const FacadeDelegate> delegate() const = 0;
};

}  // namespace morvik::kit
