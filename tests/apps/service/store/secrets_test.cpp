#include "apps/service/store/secrets.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

RequestRecord hidden(RequestRecord record, const Keys& keys) {
  Secrets(keys).hide(record);
  return record;
}

TEST(Secrets, KeysAreCoveredWhereverTheyStand) {
  const Keys keys{"app", "hash secret/1", "tracking-secret"};
  RequestRecord record;
  record.request.method = "tracking-secret";
  record.request.path = "/tracking-secret/config.json";
  record.request.headers = {{"X-Own", "k tracking-secret"}};
  record.request.body = "k=hash%20secret%2F1&l=hash%20secret%2f1&m=tracking-secret";
  record.payload = Json{{"tracking-secret", {"a", "of hash secret/1"}}, {"fine", 7}};
  record.refusal = Json{{"error", "tracking-secret"}};
  record.behaviour = Json{{"text", "tracking-secret"}};
  record.reply.body = "\"tracking-secret\"";
  record = hidden(record, keys);
  EXPECT_EQ("***************", record.request.method);
  EXPECT_EQ("/***************/config.json", record.request.path);
  EXPECT_EQ("k ***************", record.request.headers[0].second);
  EXPECT_EQ("k=*****************&l=*****************&m=***************", record.request.body);
  EXPECT_EQ(R"({"fine":7,"***************":["a","of *************"]})", jsonText(*record.payload));
  EXPECT_EQ(R"({"error":"***************"})", jsonText(*record.refusal));
  EXPECT_EQ(R"({"text":"***************"})", jsonText(*record.behaviour));
  EXPECT_EQ("\"***************\"", record.reply.body);
}

TEST(Secrets, AKeyThatJsonEscapesIsCoveredInABodyToo) {
  RequestRecord record;
  record.request.body = R"({"k":"se\"cret-key"})";
  EXPECT_EQ(R"({"k":"************"})", hidden(record, {"app", "se\"cret-key", ""}).request.body);
}

TEST(Secrets, AKeyIsCoveredHoweverAFormSpellsIt) {
  const Keys keys{"app", "a key/50%!", ""};
  for (const char* spelled : {"a key/50%!", "a+key/50%!", "a+key%2F50%25!", "a%20key%2f50%25%21", "%61+key/50%25%21"}) {
    RequestRecord record;
    record.request.body = "k=" + std::string(spelled) + "&l=1%2B1+2";
    EXPECT_EQ("k=" + std::string(std::string(spelled).size(), '*') + "&l=1%2B1+2", hidden(record, keys).request.body);
  }
}

TEST(Secrets, AKeyWithASlashThatJsonEscapesIsCovered) {
  RequestRecord record;
  record.request.body = R"({"k":"abc\/def=="})";
  EXPECT_EQ(R"({"k":"**********"})", hidden(record, {"app", "abc/def==", ""}).request.body);
}

TEST(Secrets, AKeyOfAsterisksDoesNotKeepTheServiceBusy) {
  RequestRecord record;
  record.request.body = "k=*******&l=1";
  EXPECT_EQ("k=*******&l=1", hidden(record, {"app", "******", ""}).request.body);
}

TEST(Secrets, AKeyOfAFewLettersIsNotLookedFor) {
  RequestRecord record;
  record.request.body = "a short text";
  EXPECT_EQ("a short text", hidden(record, {"app", "short", "a"}).request.body);
}

TEST(Secrets, WhatHeadersCarryAsCredentialsIsHidden) {
  RequestRecord record;
  record.request.headers = {{"authorization", "Bearer abc"}, {"Cookie", "a=b"}, {"Accept", "*/*"}};
  record = hidden(record, test::kKeys);
  EXPECT_EQ((NamedValues{{"authorization", "(hidden, 10 bytes)"}, {"Cookie", "(hidden, 3 bytes)"}, {"Accept", "*/*"}}),
            record.request.headers);
}

}  // namespace
}  // namespace morvik_service
