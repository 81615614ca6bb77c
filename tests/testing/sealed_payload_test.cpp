#include "testing/sealed_payload.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "services/MorvikADAFHTTPClient.h"
#include "services/text_codes.h"
#include "testing/fake_crypto.h"
#include "testing/json_reader.h"

namespace morvik::test {
namespace {

using Fields = std::map<std::string, std::string, std::less<>>;

std::string refusalOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "no refusal";
}

TEST(FormFields, DecodesPairs) {
  EXPECT_EQ(testing::formFields(""), Fields{});
  EXPECT_EQ(testing::formFields("k=app&j=a%2Bb+c%C3%a9&empty=&a=1&a=2"),
            (Fields{{"k", "app"}, {"j", "a+b c\xC3\xA9"}, {"empty", ""}, {"a", "2"}}));
}

TEST(FormFields, RefusesWhatIsNoForm) {
  EXPECT_EQ(refusalOf([] { testing::formFields("{}"); }), "form body: no \"=\" in \"{}\"");
  EXPECT_EQ(refusalOf([] { testing::formFields("a=%4"); }), "form body: % without two hexadecimal digits in %4");
  EXPECT_EQ(refusalOf([] { testing::formFields("a=%zz"); }), "form body: % without two hexadecimal digits in %zz");
}

class OpenEnvelope : public ::testing::Test {
 protected:
  kit::Request requestWith(const kit::Value& payload, const std::string& key) {
    const auto envelope = services::makeEnvelope(tools, "the app", payload, key);
    kit::Request request;
    request.body = services::formEncoded(std::get<kit::Value>(envelope).dictionary());
    return request;
  }

  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  services::SealingTools tools{cipher, compressor, random};
};

TEST_F(OpenEnvelope, GivesAppKeyAndPayload) {
  const kit::Value payload = testing::json(R"({"a":[1,2],"text":")" + std::string(500, 'x') + "\"}");
  const auto opened = testing::openEnvelope(tools, requestWith(payload, "key"), "key");
  EXPECT_EQ(opened.app_key, "the app");
  EXPECT_EQ(opened.payload, payload);
}

TEST_F(OpenEnvelope, RefusesAWrongKeyAndWhatIsNoEnvelope) {
  const kit::Request request = requestWith(testing::json("{}"), "key");
  EXPECT_EQ(refusalOf([&] { testing::openEnvelope(tools, request, "other"); }),
            "envelope: fake cipher: the key is wrong or the sealed text was changed");
  EXPECT_EQ(refusalOf([&] { testing::openEnvelope(tools, {.body = "k=1"}, "key"); }),
            "envelope: the body has no parameter \"j\"");
  EXPECT_EQ(refusalOf([&] { testing::openEnvelope(tools, {.body = "j=*"}, "key"); }),
            "envelope: parameter \"j\" is not base64url");
}

TEST(HeaderOf, FindsAHeaderWithoutCase) {
  const kit::Request request{.headers = {{"Accept-Encoding", "gzip"}, {"X", "1"}}};
  EXPECT_EQ(testing::headerOf(request, "accept-encoding"), "gzip");
  EXPECT_EQ(testing::headerOf(request, "Accept"), "");
}

TEST_F(OpenEnvelope, OpensDemographicsThatAreSealedInHexadecimal) {
  const auto sealed = services::seal(tools, "key", R"({"puid":"p"})", services::Compression::kNever);
  kit::Request request;
  request.body = "j=" + services::hexText(std::get<std::string>(sealed));
  EXPECT_EQ(testing::openDemographics(tools, request, "key")["puid"], kit::Value("p"));
  EXPECT_NE(refusalOf([&] { testing::openDemographics(tools, request, "other"); }).find("demographics: "),
            std::string::npos);
  request.body = "j=0";
  EXPECT_EQ(refusalOf([&] { testing::openDemographics(tools, request, "key"); }),
            "hexadecimal text: an odd number of digits");
  request.body = "j=0A";
  EXPECT_EQ(refusalOf([&] { testing::openDemographics(tools, request, "key"); }),
            "hexadecimal text: no lower-case digit at 0");
}

}  // namespace
}  // namespace morvik::test
