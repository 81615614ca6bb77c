#include "host/crypto/openssl_error.h"

#include <openssl/err.h>

namespace morvik::host {

kit::Error opensslError(const std::string& what) {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  return kit::Error{what + ": " + (reason == nullptr ? "no reason given" : reason)};
}

}  // namespace morvik::host
