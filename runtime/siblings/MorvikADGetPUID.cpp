#include "runtime/siblings/MorvikADGetPUID.h"

#include <utility>

namespace morvik::runtime {

std::optional<std::string> MorvikADGetPUID::getAESHashedPUID() const {
  const std::scoped_lock hold(mutex_);
  if (!puid_ && device_id_)
    puid_ = hash_->hmacSha256Hex(app_key_, *device_id_);
  return puid_;
}

void MorvikADGetPUID::replaceDeviceId(std::string device_id) {
  const std::scoped_lock hold(mutex_);
  if (!device_id_ || *device_id_ == device_id)
    return;
  device_id_ = std::move(device_id);
  puid_.reset();
}

}  // namespace morvik::runtime
