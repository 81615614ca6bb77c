// A service of the testing library reads what the kit's own cipher seals.
#include "testing/simulated_service.h"

#include <gtest/gtest.h>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "host/linux/system_random.h"
#include "services/MorvikADAFHTTPClient.h"
#include "testing/json_reader.h"

namespace morvik::test {
namespace {

TEST(SimulatedServiceWithTheRealCipher, CountsWhatADeviceSealed) {
  const host::OpensslCipher cipher;
  const host::ZlibCompressor compressor;
  host::SystemRandom random;
  const services::SealingTools tools{cipher, compressor, random};
  testing::SimulatedService service(tools, {"app", "hash", "tracking"}, [] { return kit::Date{}; });
  const kit::Value payload = testing::json(R"({"activity_info":[{"event_id":"a"}],"impression_info":[]})");
  const auto envelope = services::makeEnvelope(tools, "app", payload, "tracking");
  kit::Request request{.method = "POST", .url = "https://service.example/v1/tracking"};
  request.body = services::formEncoded(std::get<kit::Value>(envelope).dictionary());

  const testing::ServedRequest served = service.receive(request);
  EXPECT_EQ(served.refusal, std::nullopt);
  EXPECT_EQ(served.payload, payload);
  EXPECT_EQ(service.arrivalsOf("a"), 1u);

  request.body.back() = request.body.back() == 'A' ? 'Q' : 'A';
  EXPECT_TRUE(service.receive(request).refusal.has_value());
  EXPECT_EQ(service.arrivalsOf("a"), 1u);
}

}  // namespace
}  // namespace morvik::test
