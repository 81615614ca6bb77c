// Keeps what nobody may read out of what the service remembers.
#pragma once

#include <string>
#include <vector>

#include "apps/service/base/keys.h"
#include "apps/service/store/store.h"

namespace morvik_service {

/// A key shorter than this is not looked for: its few letters stand in too many texts.
inline constexpr std::size_t kLeastSecretBytes = 6;

/// Covers secrets before a request is stored: the hash key and the tracking key, which a confused client may send in
/// the clear, wherever they stand (path, headers, body, payload, refusal, answer), as they are, as JSON or a form
/// writes them; and the values of headers that carry credentials.
class Secrets {
 public:
  explicit Secrets(const Keys& keys);

  /// The record as it may be remembered. The reply that goes out is a copy made before.
  void hide(RequestRecord& record) const;

 private:
  bool cover(std::string& text) const;
  bool coverSpellings(std::string& text) const;
  void cover(Json& value) const;
  void coverMembers(Json& object) const;

  std::vector<std::string> secrets_;
};

}  // namespace morvik_service
