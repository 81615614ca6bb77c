// The utility class.
#pragma once

#include <optional>
#include <string>

#include "kit/MorvikADUtil.h"

namespace morvik::host {

/// Any thread.
class MorvikADUtil final : public kit::MorvikADUtil {
 public:
  /// `idfa`: nothing when the user limits tracking.
  MorvikADUtil(std::optional<std::string> idfa, bool has_loopback_endpoint)
      : idfa_(std::move(idfa)), has_loopback_endpoint_(has_loopback_endpoint) {}

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
  std::optional<std::string> IDFA() const override { return idfa_; }
  /// "unknown", "wifi", "cellular" or "ethernet", as it is now.
  std::string getNetworkStatus() const;

 private:
  const std::optional<std::string> idfa_;
  const bool has_loopback_endpoint_;
};

}  // namespace morvik::host
