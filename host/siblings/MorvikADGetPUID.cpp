#include "host/siblings/MorvikADGetPUID.h"

#include "host/crypto/hmac.h"

namespace morvik::host {

std::optional<std::string> MorvikADGetPUID::getAESHashedPUID() const {
  const std::scoped_lock hold(mutex_);
  if (!puid_ && device_id_)
    puid_ = hmacSha256Hex(app_key_, *device_id_);
  return puid_;
}

}  // namespace morvik::host
