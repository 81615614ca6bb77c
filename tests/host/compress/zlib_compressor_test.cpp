#include "host/compress/zlib_compressor.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace morvik::host {
namespace {

std::string deflated(std::string_view plain) {
  std::string out;
  const auto error = ZlibCompressor().deflate(plain, out);
  EXPECT_FALSE(error) << error->message;
  return out;
}

/// The message, after checking that nothing was appended to the output.
std::string refusal(std::string_view bytes, size_t max_bytes = 1 << 20) {
  std::string out = "before";
  const auto error = ZlibCompressor().inflate(bytes, max_bytes, out);
  EXPECT_EQ(out, "before");
  return error ? error->message : "";
}

TEST(ZlibCompressor, GivesBackWhatItDeflated) {
  std::mt19937 random(1);
  for (const size_t size : {size_t{0}, size_t{1}, size_t{16384}, size_t{16385}, size_t{300'000}}) {
    std::string plain(size, ' ');
    for (char& byte : plain)
      byte = static_cast<char>(random() % 7);
    std::string back = "before";
    const auto error = ZlibCompressor().inflate(deflated(plain), size, back);
    EXPECT_FALSE(error) << error->message;
    EXPECT_EQ(back, "before" + plain);
  }
}

TEST(ZlibCompressor, EndsInTheMiddleOfALongTextWhenTheKitIsBeingStopped) {
  kit::StopRequest stop;
  stop.make();
  const ZlibCompressor compressor(&stop);
  std::string out = "before";
  const auto error = compressor.deflate(std::string(4 << 20, 'a'), out);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "could not deflate: the kit is being stopped");
  EXPECT_EQ(out, "before");
  EXPECT_FALSE(compressor.deflate("a short text", out));
  EXPECT_EQ(out, "before" + deflated("a short text"));
}

TEST(ZlibCompressor, WritesTheZlibForm) {
  const std::string bytes = deflated(std::string(1000, 'a'));
  EXPECT_EQ(bytes.substr(0, 1), "\x78");
  EXPECT_LT(bytes.size(), 30u);
}

TEST(ZlibCompressor, AppendsToWhatStandsInTheOutput) {
  std::string out = "before";
  ASSERT_FALSE(ZlibCompressor().deflate("text", out));
  EXPECT_EQ(out, "before" + deflated("text"));
}

TEST(ZlibCompressor, StopsAtTheBound) {
  const std::string bomb = deflated(std::string(16 << 20, 'a'));
  EXPECT_EQ(refusal(bomb, 1000), "inflated it has more than 1000 bytes");
  EXPECT_EQ(refusal(deflated("12345"), 4), "inflated it has more than 4 bytes");
  EXPECT_EQ(refusal(deflated("1"), 0), "inflated it has more than 0 bytes");
}

TEST(ZlibCompressor, RefusesDamagedBytes) {
  const std::string bytes = deflated("a text that is deflated");
  EXPECT_EQ(refusal("no zlib"), "the deflated data is damaged: incorrect header check");
  EXPECT_EQ(refusal(bytes + "x"), "bytes follow the end of the deflated data");
  EXPECT_EQ(refusal(""), "the deflated data ends too early");
  for (size_t size = 1; size < bytes.size(); ++size)
    EXPECT_EQ(refusal(bytes.substr(0, size)), "the deflated data ends too early") << size;
  std::string changed = bytes;
  changed.back() = static_cast<char>(changed.back() ^ 1);
  EXPECT_EQ(refusal(changed), "the deflated data is damaged: incorrect data check");
}

}  // namespace
}  // namespace morvik::host
