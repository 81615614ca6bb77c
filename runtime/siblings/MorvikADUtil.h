// The utility class.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

#include "kit/MorvikADUtil.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// What the utility class knows of the device.
struct UtilFacts {
  std::optional<std::string> idfa;  ///< nothing if the user limits tracking
  bool has_loopback_endpoint = false;
  std::string model;            ///< "" where unknown
  std::string disk_path = "/";  ///< the file system whose free space is reported
};

/// Any thread.
class MorvikADUtil final : public kit::MorvikADUtil {
 public:
  /// `machine` outlives it.
  MorvikADUtil(UtilFacts facts, const MachineFacts& machine) : facts_(std::move(facts)), machine_(machine) {}

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
  /// Takes no lock.
  std::optional<std::string> IDFA() const override { return is_idfa_replaced_ ? later_idfa_ : facts_.idfa; }
  /// It turned out to be different. Only the first call has an effect.
  void replaceIDFA(const std::string& idfa);
  /// The current status.
  std::string getNetworkStatus() const override;
  std::optional<std::string> platformString() const override { return facts_.model; }
  kit::Value freeDiskSpace() const override;
  uint32_t getFreeRam() const override;
  std::string memoryFormatter(uint32_t kibibytes) const override;

 private:
  const UtilFacts facts_;
  const MachineFacts& machine_;
  std::once_flag idfa_replacement_;
  std::optional<std::string> later_idfa_;  ///< written before the flag, and never again
  std::atomic<bool> is_idfa_replaced_{false};
};

}  // namespace morvik::runtime
