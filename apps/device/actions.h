// What each verb does. Every action runs as one block on the device's main queue, but for those that block their
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kit/value.h"

namespace morvik_device {

class Phone;

/// The signal of that name, of those that a process dies of; nothing for any other.
std::optional<int> fatalSignal(const std::string& name);

/// The wall clock moves by at most a hundred years at once.
inline constexpr double kMaxClockStepSeconds = 3.2e9;
/// How long "settle" waits when it is not said.
inline constexpr double kSettleSeconds = 30.0;
/// How long "flush" and "wait-delivered" wait when it is not said.
inline constexpr double kFlushSeconds = 30.0;

/// What stood behind a verb.
struct Arguments {
  std::vector<std::string> words;
  std::optional<double> seconds;
  std::optional<int32_t> number;
  std::optional<bool> flag;
  morvik::kit::Value json;
};

/// The seconds behind a verb, in whole milliseconds: those that were not reached count in full.
std::chrono::milliseconds millisecondsOf(double seconds);

/// How a verb ended.
struct Outcome {
  std::optional<std::string> refusal;     ///< why it was refused, or did not come to its end
  morvik::kit::MutableDictionary fields;  ///< what it answers beside
  bool ends_program = false;
};

/// Called once, on the main queue, in the action's turn or in a later one.
using Reply = std::function<void(const Outcome& outcome)>;
using Action = void (*)(Phone& phone, const Arguments& arguments, const Reply& reply);

void becomeActive(Phone& phone, const Arguments& arguments, const Reply& reply);
void enterBackground(Phone& phone, const Arguments& arguments, const Reply& reply);
void recordEvent(Phone& phone, const Arguments& arguments, const Reply& reply);
void recordImpression(Phone& phone, const Arguments& arguments, const Reply& reply);
void openUrl(Phone& phone, const Arguments& arguments, const Reply& reply);
void storeUrl(Phone& phone, const Arguments& arguments, const Reply& reply);
void passFacebookUrl(Phone& phone, const Arguments& arguments, const Reply& reply);
void reportThirdPartyConversion(Phone& phone, const Arguments& arguments, const Reply& reply);
void setStored(Phone& phone, const Arguments& arguments, const Reply& reply);
void setAge(Phone& phone, const Arguments& arguments, const Reply& reply);
void setGender(Phone& phone, const Arguments& arguments, const Reply& reply);
void setUserId(Phone& phone, const Arguments& arguments, const Reply& reply);
void clearUserId(Phone& phone, const Arguments& arguments, const Reply& reply);
void forgetMe(Phone& phone, const Arguments& arguments, const Reply& reply);
void tellWhetherForgotten(Phone& phone, const Arguments& arguments, const Reply& reply);
void goOffline(Phone& phone, const Arguments& arguments, const Reply& reply);
void goOnline(Phone& phone, const Arguments& arguments, const Reply& reply);
void crash(Phone& phone, const Arguments& arguments, const Reply& reply);
void crashBySignal(Phone& phone, const Arguments& arguments, const Reply& reply);
void push(Phone& phone, const Arguments& arguments, const Reply& reply);
void flush(Phone& phone, const Arguments& arguments, const Reply& reply);
void switchSending(Phone& phone, const Arguments& arguments, const Reply& reply);
void wait(Phone& phone, const Arguments& arguments, const Reply& reply);
void moveClock(Phone& phone, const Arguments& arguments, const Reply& reply);
void settle(Phone& phone, const Arguments& arguments, const Reply& reply);
void showStore(Phone& phone, const Arguments& arguments, const Reply& reply);
void showStatus(Phone& phone, const Arguments& arguments, const Reply& reply);
void showLedger(Phone& phone, const Arguments& arguments, const Reply& reply);
void killProcess(Phone& phone, const Arguments& arguments, const Reply& reply);
/// Blocks the thread that runs it; see Verb::blocks_its_thread.
void waitDelivered(Phone& phone, const Arguments& arguments, const Reply& reply);
/// These end the program; whoever runs it then stops or erases, outside of the main queue.
void quit(Phone& phone, const Arguments& arguments, const Reply& reply);
void erase(Phone& phone, const Arguments& arguments, const Reply& reply);

}  // namespace morvik_device
