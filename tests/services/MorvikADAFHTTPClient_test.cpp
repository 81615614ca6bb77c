#include "services/MorvikADAFHTTPClient.h"

#include <gtest/gtest.h>

#include "testing/json_reader.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::HttpHeader;
using kit::Request;
using kit::Value;
using testing::json;

constexpr const char* kBase = "https://a.example/";

const std::vector<HttpHeader> kFormHeaders = {{"Content-Type", "application/x-www-form-urlencoded; charset=utf-8"}};
const std::vector<HttpHeader> kJsonHeaders = {{"Content-Type", "application/json; charset=utf-8"}};

Request formRequest(const char* method, const Value& parameters) {
  return MorvikADAFHTTPClient(kBase).requestWithMethod(method, "v1/x", parameters).request();
}

Request jsonRequest(const char* method, const Value& parameters) {
  MorvikADAFHTTPClient client(kBase);
  client.setParameterEncoding(AFJSONParameterEncoding);
  return client.requestWithMethod(method, "v1/x", parameters).request();
}

TEST(HttpClient, FormEncodesParametersIntoTheBodyUnlessToldOtherwise) {
  const Request request = formRequest("POST", Dictionary{{"k", "app key"}, {"j", "-_09az"}});
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://a.example/v1/x");
  EXPECT_EQ(request.body, "k=app%20key&j=-_09az");
  EXPECT_EQ(request.headers, kFormHeaders);
}

TEST(HttpClient, PutsTheParametersOfAGetIntoTheQueryWhateverTheEncoding) {
  const Dictionary parameters{{"a", 1}, {"b", "x&y"}};
  for (const Request& request : {formRequest("GET", parameters), jsonRequest("GET", parameters)}) {
    EXPECT_EQ(request.url, "https://a.example/v1/x?a=1&b=x%26y");
    EXPECT_EQ(request.body, "");
    EXPECT_TRUE(request.headers.empty());
  }
}

TEST(HttpClient, SendsEveryOtherMethodWithABody) {
  for (const char* method : {"POST", "PUT", "PATCH", "DELETE"}) {
    const Request request = formRequest(method, Dictionary{{"a", 1}});
    EXPECT_EQ(request.method, method);
    EXPECT_EQ(request.body, "a=1");
  }
}

TEST(HttpClient, WritesEveryKindOfParameterAsText) {
  EXPECT_EQ(formEncoded(Dictionary{{"text", "\xED\x95\x9C"},
                                   {"empty", ""},
                                   {"true", true},
                                   {"false", false},
                                   {"number", -5},
                                   {"double", 2.5},
                                   {"null", Value::null()},
                                   {"date", kit::Date::fromSeconds(0)},
                                   {"list", Array{1, "a"}},
                                   {"map", Dictionary{{"x", 1}}},
                                   {"a key", "v"}}),
            "text=%ED%95%9C&empty=&true=1&false=0&number=-5&double=2.5&null=&date=1970-01-01T00%3A00%3A00Z"
            "&list=%5B1%2C%22a%22%5D&map=%7B%22x%22%3A1%7D&a%20key=v");
  EXPECT_EQ(formEncoded(Dictionary()), "");
}

TEST(HttpClient, WritesJsonWhereThatIsSet) {
  const Request object = jsonRequest("POST", Dictionary{{"a", 1}, {"b", Array{"x"}}});
  EXPECT_EQ(object.body, R"({"a":1,"b":["x"]})");
  EXPECT_EQ(object.headers, kJsonHeaders);
  const Request list = jsonRequest("POST", json(R"([{"report":1}])"));
  EXPECT_EQ(list.body, R"([{"report":1}])");
  EXPECT_EQ(list.headers, kJsonHeaders);
}

TEST(HttpClient, WritesAPropertyListWhereThatIsSet) {
  MorvikADAFHTTPClient client(kBase);
  client.setParameterEncoding(AFPropertyListParameterEncoding);
  EXPECT_EQ(AFPropertyListParameterEncoding, 2);
  const Request request = client.requestWithMethod("POST", "", Dictionary{{"a", 1}}).request();
  EXPECT_EQ(request.body,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\"><dict><key>a</key><integer>1</integer></dict></plist>\n");
  EXPECT_EQ(request.headers, (std::vector<kit::HttpHeader>{{"Content-Type", "application/x-plist; charset=utf-8"}}));
  EXPECT_EQ(client.requestWithMethod("POST", "", Dictionary{{"a", Value::null()}}).request().body, "");
  EXPECT_EQ(client.requestWithMethod("GET", "", Dictionary{{"a", 1}}).request().url, std::string(kBase) + "?a=1");
}

TEST(HttpClient, CanBeSetBackToForms) {
  MorvikADAFHTTPClient client(kBase);
  client.setParameterEncoding(AFJSONParameterEncoding);
  client.setParameterEncoding(AFFormURLParameterEncoding);
  EXPECT_EQ(client.requestWithMethod("POST", "", Dictionary{{"a", 1}}).request().body, "a=1");
}

TEST(HttpClient, HasAnEmptyBodyWithoutParameters) {
  const auto expectEmpty = [](const Request& request) {
    EXPECT_EQ(request.url, "https://a.example/v1/x");
    EXPECT_EQ(request.body, "");
    EXPECT_TRUE(request.headers.empty());
  };
  for (const Value& nothing : {Value(), Value::null(), Value("text"), Value(5)}) {
    for (const char* method : {"POST", "GET"}) {
      expectEmpty(formRequest(method, nothing));
      expectEmpty(jsonRequest(method, nothing));
    }
  }
  for (const Value& empty : {Value(Dictionary()), Value(Array())}) {
    for (const char* method : {"POST", "GET"})
      expectEmpty(formRequest(method, empty));
    expectEmpty(jsonRequest("GET", empty));
  }
}

TEST(HttpClient, WritesAnEmptyListOrDictionaryAsJson) {
  EXPECT_EQ(jsonRequest("POST", Array()).body, "[]");
  EXPECT_EQ(jsonRequest("POST", Dictionary()).body, "{}");
  EXPECT_EQ(jsonRequest("POST", Array()).headers, kJsonHeaders);
}

TEST(HttpClient, TakesAListForNoParametersWhereItCannotBeWritten) {
  EXPECT_EQ(formRequest("POST", Array{1}).body, "");
  EXPECT_EQ(formRequest("GET", Array{1}).url, "https://a.example/v1/x");
  EXPECT_EQ(jsonRequest("GET", Array{1}).url, "https://a.example/v1/x");
}

TEST(HttpClient, LeavesTheBodyEmptyWhenThereIsNoJsonForm) {
  EXPECT_EQ(jsonRequest("POST", Dictionary{{"at", kit::Date{0}}}).body, "");
}

TEST(HttpClient, SetsNoTimeOutOfItsOwn) {
  MutableURLRequest request = MorvikADAFHTTPClient(kBase).requestWithMethod("POST", "v1/x", Value());
  EXPECT_EQ(request.request().timeout_seconds, std::nullopt);
  request.setTimeoutInterval(15.0);
  EXPECT_EQ(request.request().timeout_seconds, 15.0);
}

TEST(MutableUrlRequest, ReplacesAHeaderWithoutRegardToCase) {
  MutableURLRequest request(kBase);
  request.setValue("gzip", "Accept-Encoding");
  request.setValue("application/json", "accept-ENCODING");
  EXPECT_EQ(request.request().headers, (std::vector<HttpHeader>{{"Accept-Encoding", "application/json"}}));
}

TEST(MutableUrlRequest, ReplacesTheContentTypeThatTheClientSet) {
  MutableURLRequest request = MorvikADAFHTTPClient(kBase).requestWithMethod("POST", "v1/x", Dictionary{{"a", 1}});
  request.setValue("application/json", "Content-Type");
  EXPECT_EQ(request.request().headers, (std::vector<HttpHeader>{{"Content-Type", "application/json"}}));
}

TEST(MutableUrlRequest, AddsToAHeaderAfterAComma) {
  MutableURLRequest request(kBase);
  request.addValue("application/json", "Content-Type");
  EXPECT_EQ(request.request().headers, (std::vector<HttpHeader>{{"Content-Type", "application/json"}}));
  request.addValue("text/plain", "content-type");
  request.setValue("gzip", "Accept");
  EXPECT_EQ(request.request().headers,
            (std::vector<HttpHeader>{{"Content-Type", "application/json,text/plain"}, {"Accept", "gzip"}}));
}

TEST(MutableUrlRequest, IsMadePlainlyToo) {
  MutableURLRequest request("https://a.example/plain");
  request.setHTTPMethod("POST");
  request.setHTTPBody("{}");
  EXPECT_EQ(request.absoluteString(), "https://a.example/plain");
  const Request made = std::move(request).request();
  EXPECT_EQ(made.method, "POST");
  EXPECT_EQ(made.url, "https://a.example/plain");
  EXPECT_EQ(made.body, "{}");
}

}  // namespace
}  // namespace morvik::services
