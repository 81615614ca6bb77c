// Keeps secrets out of what the service stores.
#pragma once

#include <string>
#include <vector>

#include "apps/service/base/keys.h"
#include "apps/service/store/store.h"

namespace morvik_service {

/// A shorter key is not searched for: it would occur in too many texts.
inline constexpr std::size_t kLeastSecretBytes = 6;

/// Masks secrets before a request is stored: the hash key and the tracking key, which a client may send in the clear by
/// mistake, wherever they occur (path, headers, body, payload, refusal, answer), plain or as written in JSON or a form;
/// and the values of headers that carry credentials.
class Secrets {
 public:
  explicit Secrets(const Keys& keys);

  /// Masks them in the record. The reply that is sent is a copy made before.
  void hide(RequestRecord& record) const;

 private:
  bool cover(std::string& text) const;
  bool coverSpellings(std::string& text) const;
  void cover(Json& value) const;
  void coverMembers(Json& object) const;

  std::vector<std::string> secrets_;
};

}  // namespace morvik_service
