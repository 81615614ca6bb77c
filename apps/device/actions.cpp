#include "apps/device/actions.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <utility>

#include "apps/device/json_dates.h"
#include "apps/device/phone.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

/// How often "settle" looks again.
constexpr double kLookAgainSeconds = 0.005;

Outcome refused(std::string reason) {
  Outcome outcome;
  outcome.refusal = std::move(reason);
  return outcome;
}

kit::Value count(size_t number) {
  return kit::Value(static_cast<int64_t>(number));
}

std::string whatIsBusy(const Busy& busy) {
  const std::pair<size_t, const char*> parts[] = {{busy.requests, "requests in flight"},
                                                  {busy.main_blocks, "blocks on the main queue"},
                                                  {busy.background_blocks, "blocks on the background queue"},
                                                  {busy.session_end_blocks, "session ends in their half second"}};
  std::string text;
  for (const auto& [number, name] : parts) {
    if (number > 0)
      text += (text.empty() ? "still busy: " : ", ") + std::to_string(number) + " " + name;
  }
  return text;
}

using SteadyTime = std::chrono::steady_clock::time_point;

// Looks now and then until the device is settled or the time is over.
void lookWhetherSettled(Phone& phone, SteadyTime deadline, const Reply& reply) {
  const Busy busy = phone.busy();
  const double left_seconds = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
  if (!busy.settled() && left_seconds > 0) {
    phone.mainQueue().after(std::min(left_seconds, kLookAgainSeconds),
                            [&phone, deadline, reply] { lookWhetherSettled(phone, deadline, reply); });
    return;
  }
  Outcome outcome = busy.settled() ? Outcome() : refused(whatIsBusy(busy));
  outcome.fields.set("background_tasks", count(busy.background_tasks));
  outcome.fields.set("retries", count(busy.retries));
  reply(std::move(outcome));
}

}  // namespace

void becomeActive(Phone& phone, const Arguments&, const Reply& reply) {
  phone.app().applicationDidBecomeActive();
  reply({});
}

void enterBackground(Phone& phone, const Arguments&, const Reply& reply) {
  phone.app().applicationDidEnterBackground();
  reply({});
}

void recordEvent(Phone& phone, const Arguments& arguments, const Reply& reply) {
  if (phone.forgetsMe())
    return reply(refused("the user asked to be forgotten, so no events of the app are recorded"));
  const auto& words = arguments.words;
  phone.app().addActivity(words[0], words[1],
                          words.size() > 2 ? std::optional<std::string_view>(words[2]) : std::nullopt);
  reply({});
}

void recordImpression(Phone& phone, const Arguments& arguments, const Reply& reply) {
  if (!arguments.json.isDictionary())
    return reply(refused("an impression record is a JSON object, such as {\"campaignKey\":7,\"spaceKey\":\"top\"}"));
  const auto properties = phone.properties();
  properties.inOneStep([&] {
    kit::MutableArray impressions(properties.fendoImpressionInfos());
    impressions.append(withDates(arguments.json));
    properties.setFendoImpressionInfos(std::move(impressions));
  });
  properties.synchronize();
  reply({});
}

void push(Phone& phone, const Arguments&, const Reply& reply) {
  phone.app().pushTracking();
  reply({});
}

void wait(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.mainQueue().after(*arguments.seconds, [reply] { reply({}); });
}

void moveClock(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.moveClock(*arguments.seconds);
  reply({});
}

void settle(Phone& phone, const Arguments& arguments, const Reply& reply) {
  const std::chrono::duration<double> limit(arguments.seconds.value_or(kSettleSeconds));
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(limit);
  lookWhetherSettled(phone, deadline, reply);
}

void showStore(Phone& phone, const Arguments& arguments, const Reply& reply) {
  std::optional<std::string> unknown;
  const kit::Value values = phone.storeView().show(arguments.words, unknown);
  if (unknown)
    return reply(refused("\"" + *unknown + "\" is no stored property; \"store\" alone shows them all"));
  Outcome outcome;
  outcome.fields.set("values", values);
  reply(std::move(outcome));
}

void killProcess(Phone&, const Arguments&, const Reply&) {
  std::raise(SIGKILL);
}

void quit(Phone&, const Arguments&, const Reply& reply) {
  Outcome outcome;
  outcome.ends_program = true;
  reply(std::move(outcome));
}

}  // namespace morvik_device
