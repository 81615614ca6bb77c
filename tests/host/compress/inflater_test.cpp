#include "host/compress/inflater.h"

#include <gtest/gtest.h>
#include <zlib.h>

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
std::string gzipped(std::string_view plain) {
  return packed(plain, 15 + 16);
}

TEST(Inflater, ReadsEachForm) {
  const std::string plain = "the same text in three forms";
  const std::pair<DeflateForm, int> forms[] = {
      {DeflateForm::kZlib, 15}, {DeflateForm::kGzip, 15 + 16}, {DeflateForm::kRaw, -15}};
  for (const auto& [form, window_bits] : forms) {
    Inflater inflater(form, plain.size());
    std::string out;
    EXPECT_FALSE(inflater.feed(packed(plain, window_bits), out));
    EXPECT_FALSE(inflater.finish());
    EXPECT_EQ(out, plain);
  }
}

TEST(Inflater, TakesItsBytesInAnyPieces) {
  const std::string plain(100'000, 'p');
  const std::string bytes = gzipped(plain);
  Inflater inflater(DeflateForm::kGzip, plain.size());
  std::string out;
  for (const char& byte : bytes) {
    EXPECT_TRUE(inflater.finish());
    EXPECT_FALSE(inflater.feed(std::string_view(&byte, 1), out));
  }
  EXPECT_FALSE(inflater.finish());
  EXPECT_EQ(out, plain);
}

TEST(Inflater, ReadsGzipMembersOneAfterTheOther) {
  Inflater inflater(DeflateForm::kGzip, 100);
  std::string out;
  EXPECT_FALSE(inflater.feed(gzipped("one ") + gzipped(""), out));
  EXPECT_FALSE(inflater.feed(gzipped("two"), out));
  EXPECT_FALSE(inflater.finish());
  EXPECT_EQ(out, "one two");
}

TEST(Inflater, RefusesWhatFollowsAGzipMemberAndIsNone) {
  Inflater inflater(DeflateForm::kGzip, 100);
  std::string out;
  const auto error = inflater.feed(gzipped("one") + "garbage", out);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "the deflated data is damaged: incorrect header check");
}

TEST(Inflater, CountsOverAllPiecesAndMembers) {
  Inflater inflater(DeflateForm::kGzip, 5);
  std::string out;
  EXPECT_FALSE(inflater.feed(gzipped("123"), out));
  EXPECT_FALSE(inflater.ranOver());
  EXPECT_TRUE(inflater.feed(gzipped("456"), out));
  EXPECT_TRUE(inflater.ranOver());
  EXPECT_EQ(out, "123");
}

}  // namespace
}  // namespace morvik::host
