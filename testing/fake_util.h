// The kit's utility class for tests: the real converters and formats, and an advertising identifier of the test's.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kit/MorvikADUtil.h"

namespace morvik::testing {

/// Any thread; nothing blocks.
class FakeUtil : public kit::MorvikADUtil {
 public:
  /// At first: "00000000-0000-4000-8000-0000000000AD".
  void setIDFA(std::optional<std::string> idfa) {
    const std::lock_guard lock(mutex_);
    idfa_ = std::move(idfa);
  }

  kit::Value checkNilToBlankString(const kit::Value& value) const override;
  bool checkNilToNo(const kit::Value& value) const override;
  int64_t checkIntegerNilToZero(const kit::Value& value) const override;
  int64_t checkLongLongNilToZero(const kit::Value& value) const override;
  double checkDoubleNilToZero(const kit::Value& value) const override;
  int32_t checkNilToZero(const kit::Value& value) const override;
  kit::Value getURLParmaters(const kit::Url& url) const override;
  std::string getKoreaDateFormateDate(kit::Date date) const override;
  std::string getUTCFormateDate(kit::Date date) const override;
  double timeIntervalSinceServerDate(kit::Date device_date, double base_time_seconds) const override;
  std::optional<std::string> IDFA() const override;

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> idfa_ = "00000000-0000-4000-8000-0000000000AD";
};

}  // namespace morvik::testing
