// Any bytes at the local service: as a body of each endpoint, as a correctly sealed payload, as a stream to inflate, as
// an inspection, as an expectation. The first byte selects which, the second the endpoint.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "apps/service/base/base64url.h"
#include "apps/service/expect/items.h"
#include "apps/service/service.h"
#include "fuzz/checks.h"
#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "services/envelope.h"
#include "tests/support/scratch_folder.h"

namespace {

using morvik::fuzz::require;
using morvik_service::Endpoint;
using morvik_service::HttpReply;
using morvik_service::HttpRequest;
using morvik_service::Json;
using morvik_service::NamedValues;

const morvik_service::Keys kKeys{"fuzz-app", "fuzz-hash-key", "fuzz-tracking-key"};
// Inputs before the store is renewed: being slow because of much content is no finding.
constexpr int kInputsPerStore = 500;

struct World {
  morvik::test::ScratchFolder folder;
  morvik_service::Store store{folder.path()};
  morvik_service::Service service{
      kKeys, {}, store, [] { return std::int64_t{1767225600000}; }, [](const std::string&) {}};
  int inputs = 0;
};

std::unique_ptr<World> world;

// Only between inputs, so that an input finds what it sent.
void renewWorld() {
  if (world != nullptr && ++world->inputs <= kInputsPerStore)
    return;
  world.reset();
  world = std::make_unique<World>();
}

HttpRequest makeRequest(std::string method, std::string path, std::string body, const char* type) {
  HttpRequest request;
  request.method = std::move(method);
  request.path = std::move(path);
  request.headers = {{"Host", "localhost"}, {"Content-Type", type}};
  request.body_bytes = body.size();
  request.body = std::move(body);
  return request;
}

constexpr const char* kForm = "application/x-www-form-urlencoded; charset=utf-8";
constexpr const char* kJson = "application/json; charset=utf-8";

// An answer, or a refusal, of the service's own: never an internal failure.
Json ask(const HttpRequest& request) {
  const HttpReply reply = world->service.handle(request);
  require(reply.status >= 200 && reply.status < 500, "an answer with a status that no request explains");
  if (reply.stream != nullptr || reply.content_type != HttpReply().content_type)
    return nullptr;
  Json answer = Json::parse(reply.body, nullptr, false);
  require(answer.is_object(), "an answer that is no JSON object");
  if (reply.status >= 400)
    require(answer.contains("error") && answer.contains("where") && answer.contains("fix"), "a refusal without words");
  return answer;
}

Json inspect(const std::string& path, const NamedValues& query = {}) {
  HttpRequest request = makeRequest("GET", path, "", kJson);
  request.query = query;
  return ask(request);
}

// What arrived can be inspected, in every list.
void lookAtNewest(const std::string& path) {
  const Json newest = inspect("/inspect/summaries", {{"limit", "1"}}).at("requests").at(0);
  require(newest.at("path") == path, "a request that is not in the list");
  const Json shown = inspect("/inspect/request", {{"id", newest.at("id").dump()}});
  require(!shown.at("rules").empty() || shown.at("refusal").is_null(), "a refusal that is no broken rule");
  inspect("/inspect/timeline", {{"install", newest.at("install").get<std::string>()}});
  const morvik_service::Item item{shown};
  for (const std::string_view field : morvik_service::allFields())
    morvik_service::readField(item, {std::string(field), "x"});
}

void arrive(const HttpRequest& request) {
  ask(request);
  lookAtNewest(request.path);
}

std::string deflated(const std::string& bytes) {
  std::string stream;
  require(!morvik::host::ZlibCompressor().deflate(bytes, stream), "bytes that cannot be deflated");
  return stream;
}

std::string keyOf(const Endpoint& endpoint) {
  return morvik_service::keyText(kKeys, endpoint.key);
}

// What only a holder of the key can make, whatever is inside.
std::string sealed(const Endpoint& endpoint, const std::string& content, char flags) {
  const morvik::host::OpensslCipher cipher;
  const std::string header{morvik::services::kSealedVersion, flags};
  const std::string nonce(12, '\x5a');
  std::string encrypted;
  require(!cipher.encrypt(keyOf(endpoint), nonce, header, content, encrypted), "bytes that cannot be encrypted");
  return header + nonce + encrypted;
}

std::string inHexadecimal(const std::string& bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    text.push_back(kDigits[static_cast<unsigned char>(c) >> 4U]);
    text.push_back(kDigits[static_cast<unsigned char>(c) & 15U]);
  }
  return text;
}

std::string sealedForm(const Endpoint& endpoint, const std::string& content, char flags) {
  if (endpoint.form == morvik_service::PayloadForm::kHexadecimal)
    return "j=" + inHexadecimal(sealed(endpoint, content, flags));
  return "k=" + kKeys.app_key + "&j=" + morvik_service::encodeBase64Url(sealed(endpoint, content, flags));
}

std::string pathOf(const Endpoint& endpoint) {
  std::string path(endpoint.path);
  const std::size_t place = path.find(morvik::testing::kAppKeyPlaceholder);
  if (place != std::string::npos)
    path.replace(place, morvik::testing::kAppKeyPlaceholder.size(), kKeys.app_key);
  return path;
}

// What was reported can be inspected, with what arrived.
void lookAtNewestLedger() {
  const Json ledgers = inspect("/inspect/ledger").at("ledgers");
  if (ledgers.empty())
    return;
  const auto install = ledgers.front().at("install").get<std::string>();
  const Json shown = inspect("/inspect/ledger", {{"install", install}}).at("ledgers");
  require(shown.size() == 1 && shown.front().at("accounts").front().contains("arrived"), "a ledger that is not shown");
}

// "METHOD PATH name=value name=value", a line feed, the body.
void inspectAnything(const std::string& bytes) {
  const std::size_t end = std::min(bytes.find('\n'), bytes.size());
  std::istringstream words(bytes.substr(0, end));
  std::string method, path, pair;
  words >> method >> path;
  HttpRequest request = makeRequest(method, "/inspect/" + path, end < bytes.size() ? bytes.substr(end + 1) : "", kJson);
  while (words >> pair) {
    const std::size_t equals = std::min(pair.find('='), pair.size());
    request.query.emplace_back(pair.substr(0, equals), equals < pair.size() ? pair.substr(equals + 1) : "");
  }
  ask(request);
  ask(makeRequest("DELETE", "/inspect/behaviour", "", kJson));
  lookAtNewestLedger();
}

void expectAnything(const std::string& text) {
  const Json request = Json::parse(
      R"({"id":1,"method":"POST","path":"/v1/tracking","endpoint":"tracking","headers":[["A","b"]],"body":"","counted":true,
          "refusal":null,"behaviour":null,"payload":{"activity_info":[{"activity":"a","group":"b","param":"c"}]},
          "answer":{"status":200,"body":"{}"}})");
  try {
    const auto expression = morvik_service::Expression::parse(text, morvik_service::allFields());
    for (const bool events : {true, false}) {
      for (const auto& item : morvik_service::itemsOf(request, events)) {
        const auto verdict =
            expression.evaluate([&](const auto& path) { return morvik_service::readField(item, path); });
        require(static_cast<std::size_t>(verdict.misses) == verdict.why.size(), "a miss without a reason");
      }
    }
  } catch (const morvik_service::ExpressionError& error) {
    require(error.column() >= 1 && error.column() <= text.size() + 1, "a complaint about no place of the text");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2)
    return 0;
  renewWorld();
  const auto& all = morvik_service::endpoints();
  const Endpoint& endpoint = all[data[1] % all.size()];
  const std::string bytes(data + 2, data + size);
  const std::string method(endpoint.method);
  switch (data[0] % 8) {
    case 0:
      arrive(makeRequest(method, pathOf(endpoint), bytes, kForm));
      break;
    case 1:
      arrive(makeRequest(method, pathOf(endpoint), bytes, kJson));
      break;
    case 2:
      arrive(makeRequest(method, pathOf(endpoint), sealedForm(endpoint, bytes, 0), kForm));
      break;
    case 3:
      arrive(makeRequest(method, pathOf(endpoint), sealedForm(endpoint, bytes, morvik::services::kSealedFlagDeflated),
                         kForm));
      break;
    case 4:
      arrive(makeRequest(method, pathOf(endpoint),
                         sealedForm(endpoint, deflated(bytes), morvik::services::kSealedFlagDeflated), kForm));
      break;
    case 5:
      inspectAnything(bytes);
      break;
    case 6:
      expectAnything(bytes);
      break;
    default:
      ask(makeRequest(bytes.substr(0, data[1] % 8), "/" + bytes, bytes, kForm));
      break;
  }
  return 0;
}
