// Any bytes as something sealed, for the device's decoder and the service's: both open the same, or neither does. And
// any bytes as a payload: once sealed, both open it; with one bit changed, neither does.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "apps/service/base/refusal.h"
#include "apps/service/wire/sealed.h"
#include "fuzz/checks.h"
#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "services/envelope.h"
#include "testing/fake_crypto.h"

namespace {

using morvik::fuzz::require;

constexpr const char* kKey = "a tracking key";
/// Small, so that larger content is found soon. The service's own bound is larger.
constexpr size_t kMaxBytes = size_t{1} << 20;

const morvik::host::OpensslCipher cipher;
const morvik::host::ZlibCompressor compressor;
morvik::testing::SeededRandom random_bytes;

std::optional<std::string> openedByDevice(const std::string& sealed) {
  auto opened = morvik::services::openSealed({cipher, compressor, random_bytes}, kKey, sealed, kMaxBytes);
  if (auto* text = std::get_if<std::string>(&opened))
    return std::move(*text);
  return std::nullopt;
}

std::optional<std::string> openedByService(const std::string& sealed) {
  try {
    return morvik_service::openSealed(sealed, kKey);
  } catch (const morvik_service::Refusal&) {
    return std::nullopt;
  }
}

void openBoth(const std::string& sealed) {
  const auto by_device = openedByDevice(sealed);
  const auto by_service = openedByService(sealed);
  if (!by_device && by_service && by_service->size() > kMaxBytes)
    return;
  require(by_device == by_service, "one decoder opens what the other does not");
}

void sealAndChange(const std::string& plain, size_t bit) {
  const auto made = morvik::services::seal({cipher, compressor, random_bytes}, kKey, plain,
                                           morvik::services::Compression::kWhenShorter);
  require(std::holds_alternative<std::string>(made), "a payload that cannot be sealed");
  std::string sealed = std::get<std::string>(made);
  require(openedByDevice(sealed) == plain, "the device does not open what it sealed");
  require(openedByService(sealed) == plain, "the service does not open what the device sealed");
  const size_t byte = bit / 8 % sealed.size();
  sealed[byte] = static_cast<char>(sealed[byte] ^ (1 << (bit % 8)));
  require(!openedByDevice(sealed), "the device opens what was changed");
  require(!openedByService(sealed), "the service opens what was changed");
}

/// What only a holder of the key can make, but with nonsense inside: the header says deflated, the text is not.
void openHonestlySealedNonsense(const std::string& inside) {
  std::string sealed{morvik::services::kSealedVersion, morvik::services::kSealedFlagDeflated};
  const std::string header = sealed;
  const std::string nonce(12, '\x5a');
  std::string encrypted;
  require(!cipher.encrypt(kKey, nonce, header, inside, encrypted), "bytes that cannot be encrypted");
  openBoth(sealed + nonce + encrypted);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHead = 3;
  if (size < kHead)
    return 0;
  const std::string rest(data + kHead, data + size);
  switch (data[0] % 3) {
    case 0:
      openBoth(rest);
      break;
    case 1:
      sealAndChange(rest.substr(0, kMaxBytes), static_cast<size_t>(data[1]) << 8U | data[2]);
      break;
    default:
      openHonestlySealedNonsense(rest);
      break;
  }
  return 0;
}
