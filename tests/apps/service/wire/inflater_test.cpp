#include "apps/service/wire/inflater.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"
#include "tests/apps/service/sealing.h"

namespace morvik_service {
namespace {

using test::deflated;
using test::refusalOf;

TEST(Inflater, GivesBackWhatWasDeflated) {
  for (const std::size_t size : {0U, 1U, 65535U, 65536U, 65537U, 1000000U}) {
    const std::string plain(size, 'a');
    EXPECT_EQ(plain, inflateBounded(deflated(plain)));
  }
}

TEST(Inflater, TakesAPayloadOfExactlyTheBoundAndRefusesOneByteMore) {
  const std::string plain(100, 'a');
  EXPECT_EQ(plain, inflateBounded(deflated(plain), plain.size()));
  const Refusal refusal = refusalOf([&] { inflateBounded(deflated(plain), plain.size() - 1); });
  EXPECT_EQ(413, refusal.status());
  EXPECT_STREQ("the payload inflates to more than 99 bytes", refusal.what());
}

TEST(Inflater, RefusesABombAtItsNamedBound) {
  const std::string bomb = deflated(std::string(kMaxInflatedBytes + 1, '\0'));
  ASSERT_LT(bomb.size(), std::size_t{1024} * 1024);
  EXPECT_STREQ("the payload inflates to more than 67108864 bytes", refusalOf([&] { inflateBounded(bomb); }).what());
}

TEST(Inflater, RefusesAStreamCutShortAnywhere) {
  const std::string stream = deflated("a text that is long enough to be cut in several places");
  for (std::size_t length = 0; length < stream.size(); ++length) {
    const Refusal refusal = refusalOf([&] { inflateBounded(std::string_view(stream).substr(0, length)); });
    EXPECT_STREQ("bad deflate: the stream is cut short", refusal.what()) << length;
  }
}

TEST(Inflater, RefusesWhatIsNoStream) {
  const Refusal refusal = refusalOf([] { inflateBounded("{\"plain\":\"json\"}"); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_STREQ("bad deflate: the stream cannot be read", refusal.what());
}

TEST(Inflater, RefusesBytesAfterTheStream) {
  EXPECT_STREQ("bad deflate: bytes follow the end of the stream",
               refusalOf([] { inflateBounded(deflated("x") + "y"); }).what());
}

}  // namespace
}  // namespace morvik_service
