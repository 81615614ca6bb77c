// The kit's utility class for tests: the real converters and formats, and a device whose facts a test sets.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kit/MorvikADUtil.h"

namespace morvik::testing {

/// Any thread; nothing blocks.
class FakeUtil : public kit::MorvikADUtil {
 public:
  /// Initially "00000000-0000-4000-8000-0000000000AD".
  void setIDFA(std::optional<std::string> idfa) {
    const std::lock_guard lock(mutex_);
    idfa_ = std::move(idfa);
  }

  /// Initially "wifi".
  void setNetworkStatus(std::string status) {
    const std::lock_guard lock(mutex_);
    network_status_ = std::move(status);
  }
  /// Initially "test-model".
  void setPlatformString(std::optional<std::string> platform) {
    const std::lock_guard lock(mutex_);
    platform_ = std::move(platform);
  }
  /// Initially 123456789.
  void setFreeDiskSpace(kit::Value bytes) {
    const std::lock_guard lock(mutex_);
    free_disk_bytes_ = std::move(bytes);
  }
  /// Initially 831,898 KiB, "812.4 MB".
  void setFreeRam(uint32_t kibibytes) {
    const std::lock_guard lock(mutex_);
    free_ram_kibibytes_ = kibibytes;
  }
  /// Whether getUTCFormateDateISO returns anything. Initially it does.
  void setKnowsISODates(bool knows) {
    const std::lock_guard lock(mutex_);
    knows_iso_dates_ = knows;
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
  std::optional<std::string> getUTCFormateDateISO(kit::Date date) const override;
  double timeIntervalSinceServerDate(kit::Date device_date, double sinceBaseTime) const override;
  std::optional<std::string> IDFA() const override;
  std::string getNetworkStatus() const override;
  std::optional<std::string> platformString() const override;
  kit::Value freeDiskSpace() const override;
  uint32_t getFreeRam() const override;
  std::string memoryFormatter(uint32_t kibibytes) const override;

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> idfa_ = "00000000-0000-4000-8000-0000000000AD";
  std::string network_status_ = "wifi";
  std::optional<std::string> platform_ = "test-model";
  kit::Value free_disk_bytes_ = 123'456'789;
  uint32_t free_ram_kibibytes_ = 831'898;
  bool knows_iso_dates_ = true;
};

}  // namespace morvik::testing
