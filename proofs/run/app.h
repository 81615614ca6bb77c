// What the app of a run does, and what the tracker expects of it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "morvik/recorded.h"
#include "proofs/oracle/expected_records.h"
#include "proofs/run/driver.h"

namespace morvik::proofs {

/// The operations that refuse a value over their limit.
enum class LimitedCall : uint8_t { kActivity, kImpression, kUserId, kUrl };
inline constexpr size_t kLimitedCalls = 4;

/// Everything happens in a turn of the main queue that is still to come. `name` is new among the records of its kind.
class RunApp {
 public:
  /// `driver` outlives it.
  explicit RunApp(Driver& driver) : driver_(driver) {}

  /// The answer is held against what the store said.
  void recordEvent(const std::string& name, const std::optional<std::string>& param);
  /// One whose name is that of a session's end, and may be deleted with it.
  void recordEventCalledEnd(const std::string& name);
  /// At once, wherever the process is: between two calls of its disk.
  void recordMeanwhile(const std::string& name);
  void recordEventWithoutGroup(const std::string& name);
  /// Offers an event that is refused if the user is forgotten; nothing otherwise.
  void offerEventOfForgotten();
  void offerTooLarge(LimitedCall call);
  void addImpression(const std::string& name);
  void openUrl(const std::string& url);
  /// `url_before_name` and the name make up the URL.
  void openCommerceUrl(const std::string& url_before_name, const std::string& name);
  void keepUrl(const std::string& url);
  /// `concerns_the_kit`: otherwise the kit has no business with it.
  void reportCrash(const std::string& reason, bool concerns_the_kit);
  void setAge(int32_t age);
  void setGender(int32_t gender);
  void setUserId(const std::string& name);
  void takeAgeBack();
  void takeGenderBack();
  void wish(bool forget_me);
  void push();
  void enterForeground();
  void leaveForeground();
  void setOffline(bool offline);

  /// What is recorded now is next to a value over a limit.
  void setNextToRefused(bool is_next) { is_next_to_refused_ = is_next; }

 private:
  bool losesRecord(RecordNumber number) const;

  Driver& driver_;
  bool is_next_to_refused_ = false;
};

}  // namespace morvik::proofs
