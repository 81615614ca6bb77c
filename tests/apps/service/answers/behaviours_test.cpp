#include "apps/service/answers/behaviours.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

const std::vector<std::string> kEndpoints = {"conversion", "tracking"};

Behaviour parsed(const std::string& text) {
  return parseBehaviour(Json::parse(text), kEndpoints);
}

Behaviour ofKind(const std::string& kind_and_more) {
  return parsed(R"({"endpoint":"tracking","kind":)" + kind_and_more + "}");
}

struct Complaint {
  std::string text;
  std::string problem;
  std::string fix;
};

TEST(Behaviours, ABehaviourIsReadAndShownInOneForm) {
  for (const std::string text : {
           R"({"endpoint":"tracking","count":3,"kind":"status","status":500,"count_events":false})",
           R"({"endpoint":"conversion","count":1,"kind":"delay","milliseconds":250,"count_events":true})",
           R"({"endpoint":"tracking","count":1,"kind":"close_before","count_events":false})",
           R"({"endpoint":"tracking","count":1,"kind":"close_after","count_events":true})",
           R"({"endpoint":"tracking","count":1,"kind":"garbage","count_events":true})",
           R"({"endpoint":"tracking","count":1,"kind":"garbage","text":"[[[","count_events":true})",
           R"({"endpoint":"tracking","count":1,"kind":"truncated_json","count_events":true})",
           R"({"endpoint":"tracking","count":1,"kind":"not_object","count_events":true})",
           R"({"endpoint":"tracking","count":1,"kind":"huge_body","count_events":false})",
           R"({"endpoint":"tracking","count":1,"kind":"json","json":{"Result":null},"count_events":true})",
       }) {
    EXPECT_EQ(text, jsonText(describeBehaviour(parsed(text))));
  }
}

TEST(Behaviours, UnlessSaidOtherwiseOnlyStatusAndCloseBeforeLeaveEventsUncounted) {
  EXPECT_FALSE(ofKind(R"("status","status":500)").count_events);
  EXPECT_FALSE(ofKind(R"("close_before")").count_events);
  for (const char* kind : {R"("delay","milliseconds":1)", R"("close_after")", R"("garbage")", R"("truncated_json")",
                           R"("not_object")", R"("huge_body")", R"("json","json":1)"}) {
    EXPECT_TRUE(ofKind(kind).count_events) << kind;
  }
  EXPECT_TRUE(ofKind(R"("status","status":500,"count_events":true)").count_events);
}

TEST(Behaviours, ABadOneIsRefusedWithWhatItMayBe) {
  const std::string known = "leave it out; known are endpoint, kind, count, count_events";
  const std::vector<Complaint> complaints = {
      {R"({"kind":"garbage"})", "\"endpoint\" is missing", "give one of: conversion, tracking"},
      {R"({"endpoint":1})", "\"endpoint\" is not a string", "give one of: conversion, tracking"},
      {R"({"endpoint":"x"})", "\"endpoint\" is not a known endpoint", "give one of: conversion, tracking"},
      {R"({"endpoint":"tracking","kind":"x"})", "\"kind\" is not a known kind",
       "give one of: status, delay, close_before, close_after, garbage, truncated_json, not_object, huge_body, json"},
      {R"({"endpoint":"tracking","kind":"status"})", "\"status\" is missing", "a behaviour of kind status needs it"},
      {R"({"endpoint":"tracking","kind":"status","status":199})", "\"status\" is not a whole number from 200 to 599",
       "give a number in that range"},
      {R"({"endpoint":"tracking","kind":"status","status":1e3})", "\"status\" is not a whole number from 200 to 599",
       "give a number in that range"},
      {R"({"endpoint":"tracking","kind":"delay","milliseconds":600001})",
       "\"milliseconds\" is not a whole number from 0 to 600000", "give a number in that range"},
      {R"({"endpoint":"tracking","kind":"garbage","count":0})", "\"count\" is not a whole number from 1 to 1000000",
       "give a number in that range"},
      {R"({"endpoint":"tracking","kind":"garbage","count":18446744073709551615})",
       "\"count\" is not a whole number from 1 to 1000000", "give a number in that range"},
      {R"({"endpoint":"tracking","kind":"garbage","count_events":1})", "\"count_events\" is neither true nor false",
       "give true or false"},
      {R"({"endpoint":"tracking","kind":"garbage","text":1})", "\"text\" is not a string", "give a text"},
      {R"({"endpoint":"tracking","kind":"close_after","status":1})",
       "\"status\" does not belong to a behaviour of kind close_after", known},
      {R"({"endpoint":"tracking","kind":"json","json":1,"status":1})",
       "\"status\" does not belong to a behaviour of kind json", known + " and json"},
  };
  for (const Complaint& complaint : complaints) {
    const Refusal refusal = refusalOf([&] { parsed(complaint.text); });
    EXPECT_EQ(400, refusal.status());
    EXPECT_EQ(complaint.problem, refusal.what()) << complaint.text;
    EXPECT_EQ(complaint.fix, refusal.fix()) << complaint.text;
  }
  EXPECT_STREQ("the JSON is not an object", refusalOf([] { parsed("[]"); }).what());
}

TEST(Behaviours, EachKindSpoilsTheAnswerInItsWay) {
  const HttpReply usual{200, "{\"Result\":true}"};
  EXPECT_EQ(503, misbehave(ofKind(R"("status","status":503)"), usual).status);
  const HttpReply late = misbehave(ofKind(R"("delay","milliseconds":7)"), usual);
  EXPECT_EQ(std::chrono::milliseconds(7), late.delay);
  EXPECT_EQ(usual.body, late.body);
  EXPECT_TRUE(misbehave(ofKind(R"("close_before")"), usual).close_without_answer);
  EXPECT_TRUE(misbehave(ofKind(R"("close_after")"), usual).close_without_answer);
  EXPECT_EQ("{\"Resul", misbehave(ofKind(R"("truncated_json")"), usual).body);
  EXPECT_EQ("[\"Result\",true]", misbehave(ofKind(R"("not_object")"), usual).body);
  EXPECT_EQ("[[", misbehave(ofKind(R"("garbage","text":"[[")"), usual).body);
  EXPECT_EQ("{\"Result\":null}", misbehave(ofKind(R"("json","json":{"Result":null})"), usual).body);
}

TEST(Behaviours, GarbageIsNoJson) {
  EXPECT_FALSE(Json::accept(misbehave(ofKind(R"("garbage")"), HttpReply{}).body));
}

TEST(Behaviours, AHugeBodyIsAnObjectBeyondWhatDevicesTake) {
  const HttpReply reply = misbehave(ofKind(R"("huge_body")"), HttpReply{});
  EXPECT_GT(reply.body.size(), std::size_t{4} * 1024 * 1024);
  EXPECT_TRUE(Json::parse(reply.body).is_object());
}

TEST(Behaviours, AreUsedInOrderAndPerEndpointAndCountedDown) {
  Behaviours behaviours;
  behaviours.add(parsed(R"({"endpoint":"tracking","count":2,"kind":"status","status":500})"));
  behaviours.add(parsed(R"({"endpoint":"conversion","kind":"garbage"})"));
  behaviours.add(parsed(R"({"endpoint":"tracking","kind":"close_after"})"));
  EXPECT_EQ(BehaviourKind::kStatus, behaviours.take("tracking")->kind);
  EXPECT_EQ(1, behaviours.list()[0]["count"]);
  EXPECT_EQ(BehaviourKind::kStatus, behaviours.take("tracking")->kind);
  EXPECT_EQ(BehaviourKind::kCloseAfter, behaviours.take("tracking")->kind);
  EXPECT_FALSE(behaviours.take("tracking").has_value());
  EXPECT_EQ(BehaviourKind::kGarbage, behaviours.take("conversion")->kind);
  EXPECT_TRUE(behaviours.list().empty());
}

TEST(Behaviours, TheQueueIsBoundedInNumber) {
  Behaviours behaviours;
  for (std::size_t i = 0; i < kMaxBehaviours; ++i)
    behaviours.add(ofKind(R"("garbage")"));
  const Refusal refusal = refusalOf([&] { behaviours.add(ofKind(R"("garbage")")); });
  EXPECT_EQ(409, refusal.status());
  EXPECT_STREQ("the queue is full (256 behaviours or 67108864 bytes)", refusal.what());
  behaviours.take("tracking");
  EXPECT_NO_THROW(behaviours.add(ofKind(R"("garbage")")));
  behaviours.clear();
  EXPECT_FALSE(behaviours.take("tracking").has_value());
}

TEST(Behaviours, TheQueueIsBoundedInBytesAndUsedOnesMakeRoom) {
  Behaviours behaviours;
  Behaviour large = ofKind(R"("garbage")");
  large.text = std::string(kMaxBehaviourBytes / 2 + 1, 'x');
  behaviours.add(large);
  EXPECT_EQ(409, refusalOf([&] { behaviours.add(large); }).status());
  behaviours.take("tracking");
  behaviours.add(large);
  behaviours.clear();
  EXPECT_NO_THROW(behaviours.add(large));
}

TEST(Behaviours, SomeMayBeTakenOut) {
  Behaviours behaviours;
  for (const BehaviourKind kind : {BehaviourKind::kDelay, BehaviourKind::kGarbage})
    for (const char* endpoint : {"tracking", "crash"})
      behaviours.add({.endpoint = endpoint, .kind = kind, .text = std::string(kMaxBehaviourBytes / 4, 'x')});
  behaviours.remove("tracking", "garbage");
  EXPECT_EQ(3U, behaviours.list().size());
  // Its bytes are available again.
  behaviours.add({.endpoint = "tracking", .text = std::string(kMaxBehaviourBytes / 4, 'x')});
  behaviours.remove("crash", "");
  behaviours.remove("", "status");
  const Json left = behaviours.list();
  ASSERT_EQ(1U, left.size());
  EXPECT_EQ("delay", left[0]["kind"]);
  EXPECT_EQ("tracking", left[0]["endpoint"]);
}

TEST(Behaviours, EveryKindIsOfferedWithWhatItNeeds) {
  const Json kinds = behaviourKinds();
  EXPECT_EQ(9U, kinds.size());
  EXPECT_EQ(R"({"kind":"delay","own_member":"milliseconds","required":true,"counts_events":true})", jsonText(kinds[1]));
}

}  // namespace
}  // namespace morvik_service
