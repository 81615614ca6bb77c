#include "host/net/answer_body.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <limits>
#include <string>

namespace morvik::host {
namespace {

std::string packed(std::string_view plain, int window_bits) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, window_bits, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(deflateBound(&stream, plain.size()) + 32, ' ');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

constexpr size_t kNoBound = std::numeric_limits<size_t>::max();

/// The body decoded from these bytes, passed one by one.
std::string decoded(std::string_view encoding, std::string_view bytes) {
  AnswerBody body(kNoBound);
  for (const char& byte : bytes)
    EXPECT_TRUE(body.take(encoding, std::string_view(&byte, 1)));
  body.finish();
  EXPECT_FALSE(body.error()) << body.error()->message;
  return body.takeText();
}

TEST(AnswerBody, DecodesWhatServersSend) {
  const std::string plain = "a text that servers send in many forms";
  EXPECT_EQ(decoded("", plain), plain);
  EXPECT_EQ(decoded("identity", plain), plain);
  EXPECT_EQ(decoded("gzip", packed(plain, 15 + 16)), plain);
  EXPECT_EQ(decoded("X-GZIP", packed(plain, 15 + 16)), plain);
  EXPECT_EQ(decoded("deflate", packed(plain, 15)), plain);
  EXPECT_EQ(decoded("deflate", packed(plain, -15)), plain);
}

TEST(AnswerBody, AnEmptyBodyIsEmptyInEveryEncoding) {
  for (const char* encoding : {"", "gzip", "deflate", "br"}) {
    AnswerBody body(kNoBound);
    EXPECT_TRUE(body.take(encoding, ""));
    body.finish();
    EXPECT_FALSE(body.error()) << encoding;
    EXPECT_EQ(body.takeText(), "");
  }
}

TEST(AnswerBody, RefusesAnEncodingThatItDoesNotKnow) {
  AnswerBody body(kNoBound);
  EXPECT_FALSE(body.take("gzip, gzip", "x"));
  EXPECT_EQ(body.error().value().message, "its encoding \"gzip, gzip\" is not known here");
  EXPECT_FALSE(body.take("gzip, gzip", "y"));
}

TEST(AnswerBody, TakesAsMuchAsAskedForAndKeepsNothingOfMore) {
  AnswerBody body(4);
  EXPECT_TRUE(body.take("", "1234"));
  EXPECT_FALSE(body.take("", "5"));
  EXPECT_EQ(body.error().value().message, "it has more than 4 bytes");
  EXPECT_EQ(body.takeText(), "");
}

// An empty stored block is five bytes that inflate to nothing: without their own bound they could continue for ever.
TEST(AnswerBody, BoundsEncodedBytesThatHoldNothing) {
  const std::string empty_block("\x00\x00\x00\xFF\xFF", 5);
  AnswerBody body(10);
  ASSERT_TRUE(body.take("deflate", std::string("\x78\x9C", 2)));
  size_t sent_bytes = 2;
  while (body.take("deflate", empty_block)) {
    sent_bytes += empty_block.size();
    ASSERT_LE(sent_bytes, 10 + kEncodingOverheadBytes);
  }
  EXPECT_GT(sent_bytes + empty_block.size(), 10 + kEncodingOverheadBytes);
  EXPECT_EQ(body.error().value().message, "it has more than 10 bytes");
}

TEST(AnswerBody, RefusesABodyThatEndsTooEarly) {
  AnswerBody body(kNoBound);
  const std::string bytes = packed("a text", 15 + 16);
  EXPECT_TRUE(body.take("gzip", std::string_view(bytes).substr(0, bytes.size() - 1)));
  body.finish();
  EXPECT_EQ(body.error().value().message, "the deflated data ends too early");
  EXPECT_EQ(body.takeText(), "");
}

}  // namespace
}  // namespace morvik::host
