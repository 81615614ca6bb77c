#include "apps/service/expect/items.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

Json sample() {
  return Json::parse(R"({"id":12,"time":"t","endpoint":"tracking","method":"POST","path":"/v1/tracking",
    "headers":[["Content-Type","form"]],"body":"k=a","body_bytes":3,
    "payload":{"install_id":"i-1","activity_info":[{"group":"shop","activity":"purchase","param":"sku","event_id":"e"},
                                                   {"group":"shop","activity":"view","param":"","event_id":"f"}]},
    "refusal":null,"behaviour":{"kind":"delay"},"counted":true,"events_new":2,"events_again":0,"impressions":0,
    "answer":{"sent":true,"status":200,"body":"{\"Result\":true}","body_bytes":15}})");
}

TEST(ExpectItems, AreEventsOrRequests) {
  const Json request = sample();
  EXPECT_EQ(2U, itemsOf(request, true).size());
  EXPECT_EQ(1U, itemsOf(request, false).size());
  EXPECT_EQ("request 12, event shop/purchase (sku)", describeItem(itemsOf(request, true)[0]));
  EXPECT_EQ("request 12, event shop/view", describeItem(itemsOf(request, true)[1]));
  EXPECT_EQ("request 12, POST /v1/tracking", describeItem(itemsOf(request, false)[0]));
  EXPECT_EQ("e", identityOf(itemsOf(request, true)[0]));
  EXPECT_EQ("", identityOf(itemsOf(request, false)[0]));
}

TEST(ExpectItems, EventsThatWereNotCountedAreNone) {
  Json request = sample();
  request["counted"] = false;
  EXPECT_TRUE(itemsOf(request, true).empty());
  request["counted"] = true;
  request["endpoint"] = "crash";
  EXPECT_TRUE(itemsOf(request, true).empty());
}

TEST(ExpectItems, EveryFieldIsRead) {
  const Json request = sample();
  const Item event = itemsOf(request, true)[0];
  const Item whole = itemsOf(request, false)[0];
  EXPECT_EQ("purchase", readField(event, {"activity"}));
  EXPECT_TRUE(readField(whole, {"activity"}).is_null());
  EXPECT_EQ("form", readField(event, {"header", "content-type"}));
  EXPECT_TRUE(readField(event, {"header", "Cookie"}).is_null());
  EXPECT_TRUE(readField(event, {"header"}).is_null());
  EXPECT_EQ("i-1", readField(whole, {"install"}));
  EXPECT_EQ("view", readField(whole, {"payload", "activity_info", "1", "activity"}));
  EXPECT_TRUE(readField(whole, {"payload", "activity_info", "2"}).is_null());
  EXPECT_TRUE(readField(whole, {"payload", "activity_info", "x"}).is_null());
  EXPECT_EQ(200, readField(whole, {"status"}));
  EXPECT_EQ(true, readField(whole, {"answer", "Result"}));
  EXPECT_EQ(false, readField(whole, {"refused"}));
  EXPECT_TRUE(readField(whole, {"refusal"}).is_null());
  EXPECT_EQ("delay", readField(whole, {"behaviour"}));
  EXPECT_EQ(3, readField(whole, {"body_bytes"}));
}

Json withParam(const std::string& param) {
  Json request = sample();
  request["payload"]["activity_info"][0]["param"] = param;
  return request;
}

TEST(ExpectItems, AStructuredParameterIsReachedInto) {
  const Json request = withParam(R"({"price":9.99,"item":{"sku":"42"},"tags":["new",7],"price-net":null,"price":10})");
  const Item event = itemsOf(request, true)[0];
  EXPECT_EQ(10, readField(event, {"param", "price"}));
  EXPECT_EQ("42", readField(event, {"param", "item", "sku"}));
  EXPECT_EQ(7, readField(event, {"param", "tags", "1"}));
  EXPECT_TRUE(readField(event, {"param", "tags", "2"}).is_null());
  EXPECT_TRUE(readField(event, {"param", "price-net"}).is_null());
  EXPECT_TRUE(readField(event, {"param", "price", "net"}).is_null());
  EXPECT_TRUE(readField(event, {"param", "name"}).is_null());
  EXPECT_EQ(request["payload"]["activity_info"][0]["param"], readField(event, {"param"}));
  EXPECT_EQ("42", readField(itemsOf(request, false)[0], {"payload", "activity_info", "0", "param", "item", "sku"}));
}

TEST(ExpectItems, AParameterThatIsNoObjectStaysText) {
  for (const std::string param : {"sku-42", "", "42", "[1]", "null", R"("{}")", R"({"price":)",
                                  R"({"price":1} )"
                                  "x",
                                  "{\"price\":\"\xff\"}"}) {
    const Json request = withParam(param);
    const Item event = itemsOf(request, true)[0];
    EXPECT_EQ(param, readField(event, {"param"}));
    EXPECT_TRUE(readField(event, {"param", "price"}).is_null()) << param;
    EXPECT_TRUE(readField(event, {"param", "0"}).is_null()) << param;
  }
}

TEST(ExpectItems, AParameterPastTheLimitsOfTheServicesJsonStaysText) {
  std::string param = "{\"price\":1,\"deep\":";
  for (std::size_t depth = 0; depth < kMaxJsonDepth; ++depth)
    param += "[";
  param += std::string(kMaxJsonDepth, ']') + "}";
  const Json too_deep = withParam(param);
  EXPECT_TRUE(readField(itemsOf(too_deep, true)[0], {"param", "price"}).is_null());
  param.erase(param.find('['), 1);
  param.erase(param.rfind(']'), 1);
  const Json deep = withParam(param);
  EXPECT_EQ(1, readField(itemsOf(deep, true)[0], {"param", "price"}));
}

TEST(ExpectItems, ARefusedRequestSaysWhy) {
  Json request = sample();
  request["refusal"] = {{"error", "it is bad"}};
  request["payload"] = nullptr;
  request["answer"]["body"] = "<html>";
  const Item whole = itemsOf(request, false)[0];
  EXPECT_EQ(true, readField(whole, {"refused"}));
  EXPECT_EQ("it is bad", readField(whole, {"refusal"}));
  EXPECT_TRUE(readField(whole, {"install"}).is_null());
  EXPECT_TRUE(readField(whole, {"answer", "Result"}).is_null());
}

TEST(ExpectItems, EveryKnownFieldCanBeReadOfEveryItem) {
  const Json request = sample();
  for (const std::string_view name : allFields()) {
    for (const bool events : {true, false})
      EXPECT_NO_THROW(readField(itemsOf(request, events)[0], {std::string(name)})) << name;
  }
}

}  // namespace
}  // namespace morvik_service
