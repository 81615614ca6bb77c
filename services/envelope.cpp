#include "services/envelope.h"

#include <span>

#include "services/json_writer.h"
#include "services/text_codes.h"

namespace morvik::services {
namespace {

std::string freshNonce(kit::Random& random) {
  std::string nonce(kit::kNonceBytes, '\0');
  random.fill({reinterpret_cast<uint8_t*>(nonce.data()), nonce.size()});
  return nonce;
}

/// Up to this size a payload is sealed even while the kit is being stopped: it takes next to no time.
constexpr size_t kShortBytes = size_t{1} << 20;

bool isStopping(const SealingTools& tools) {
  return tools.stop != nullptr && tools.stop->isMade();
}

/// The deflated text if compression is asked for, works and is shorter; else nothing.
std::optional<std::string> deflatedIfShorter(const kit::Compressor& compressor, std::string_view plaintext,
                                             Compression compression) {
  if (compression == Compression::kNever)
    return std::nullopt;
  std::string deflated;
  if (compressor.deflate(plaintext, deflated) || deflated.size() >= plaintext.size())
    return std::nullopt;
  return deflated;
}

}  // namespace

std::variant<std::string, kit::Error> seal(const SealingTools& tools, std::string_view key_text,
                                           std::string_view plaintext, Compression compression) {
  const auto deflated = deflatedIfShorter(tools.compressor, plaintext, compression);
  if (!deflated && compression == Compression::kWhenShorter && isStopping(tools) && plaintext.size() > kShortBytes)
    return kit::Error{"The kit is being stopped."};
  const std::string_view body = deflated ? std::string_view(*deflated) : plaintext;
  const std::string nonce = freshNonce(tools.random);
  std::string sealed;
  sealed.reserve(kSealedHeaderBytes + nonce.size() + body.size() + kit::kTagBytes);
  sealed += kSealedVersion;
  sealed += deflated ? kSealedFlagDeflated : '\0';
  const std::string header = sealed;
  sealed += nonce;
  if (auto error = tools.cipher.encrypt(key_text, nonce, header, body, sealed))
    return *std::move(error);
  return sealed;
}

std::variant<std::string, kit::Error> morvikAD_AES256EncryptionWithKey(const SealingTools& tools,
                                                                       std::string_view bytes,
                                                                       std::string_view key_text) {
  return seal(tools, key_text, bytes, Compression::kNever);
}

std::variant<std::string, kit::Error> openSealed(const SealingTools& tools, std::string_view key_text,
                                                 std::string_view sealed, size_t max_bytes) {
  if (sealed.size() < kSealedHeaderBytes + kit::kNonceBytes + kit::kTagBytes) {
    return kit::Error{"The sealed text is too short to hold header, nonce and tag."};
  }
  if (sealed[0] != kSealedVersion) {
    return kit::Error{"The sealed text has version " + std::to_string(static_cast<unsigned char>(sealed[0])) +
                      "; version 1 is the one known here."};
  }
  if ((sealed[1] & ~kSealedFlagDeflated) != 0)
    return kit::Error{"The sealed text has flags that are not known here."};
  const std::string_view header = sealed.substr(0, kSealedHeaderBytes);
  const std::string_view nonce = sealed.substr(kSealedHeaderBytes, kit::kNonceBytes);
  const std::string_view rest = sealed.substr(kSealedHeaderBytes + kit::kNonceBytes);
  if (rest.size() - kit::kTagBytes > max_bytes)
    return kit::Error{"The sealed text is larger than is accepted here."};
  std::string body;
  if (auto error = tools.cipher.decrypt(key_text, nonce, header, rest, body))
    return *std::move(error);
  if (sealed[1] != kSealedFlagDeflated)
    return body;
  std::string plaintext;
  if (auto error = tools.compressor.inflate(body, max_bytes, plaintext))
    return *std::move(error);
  return plaintext;
}

std::variant<kit::Value, kit::Error> makeEnvelope(const SealingTools& tools, std::string_view app_key,
                                                  const kit::Value& payload, std::string_view key_text) {
  std::string json;
  if (auto error = appendJson(payload, json, tools.stop))
    return *std::move(error);
  auto sealed = seal(tools, key_text, json, Compression::kWhenShorter);
  if (auto* error = std::get_if<kit::Error>(&sealed))
    return std::move(*error);
  std::string text;
  appendBase64Url(std::get<std::string>(sealed), text);
  kit::MutableDictionary parameters(2);
  parameters.add(kit::Value::literal("k"), kit::Value(app_key));
  parameters.add(kit::Value::literal("j"), kit::Value(text));
  return kit::Value(std::move(parameters));
}

}  // namespace morvik::services
