// The utility class of the kit, as the core object needs it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kit/url.h"
#include "kit/value.h"

namespace morvik::kit {

/// What getNetworkStatus() says when no network is reachable.
inline constexpr const char* kNetworkUnknown = "unknown";

/// Any thread, also one that is about to die: nothing blocks or takes a lock. The converters are total: every value has
/// a defined result.
class MorvikADUtil {
 public:
  virtual ~MorvikADUtil() = default;

  // Null-safe converters: absent, null and containers count as no value. Text is read as its leading number; numbers
  // out of range saturate, not-a-number is 0.
  /// Text as it is, a number in decimal form, a boolean as "1" or "0", a date in ISO 8601; no value: "".
  virtual Value checkNilToBlankString(const Value& value) const = 0;
  /// True for a number other than 0, and for text that begins, after white space, with Y, y, T, t or a digit 1 to 9.
  virtual bool checkNilToNo(const Value& value) const = 0;
  virtual int64_t checkIntegerNilToZero(const Value& value) const = 0;
  virtual int64_t checkLongLongNilToZero(const Value& value) const = 0;
  virtual double checkDoubleNilToZero(const Value& value) const = 0;
  /// 32 bits; a wider number keeps its low 32 bits (two's complement).
  virtual int32_t checkNilToZero(const Value& value) const = 0;

  /// The URL's query as a dictionary of texts: the first value of a repeated key; '+' and percent-escapes decoded; a
  /// key without a value is present and empty. Absent if the URL has no query.
  virtual Value getURLParmaters(const Url& url) const = 0;

  /// "yyyyMMddHHmmss" at UTC+9.
  virtual std::string getKoreaDateFormateDate(Date date) const = 0;
  /// "yyyyMMddHHmmss" in UTC.
  virtual std::string getUTCFormateDate(Date date) const = 0;
  /// "yyyy-MM-dd'T'HH:mm:ss'Z'" in UTC; nothing if the platform cannot express it.
  virtual std::optional<std::string> getUTCFormateDateISO(Date date) const = 0;
  /// Server time minus device time, in seconds; `sinceBaseTime` is the server's time in seconds since 1970.
  virtual double timeIntervalSinceServerDate(Date device_date, double sinceBaseTime) const = 0;

  /// The device's advertising identifier; nothing if the user limits tracking.
  virtual std::optional<std::string> IDFA() const = 0;
  /// kNetworkUnknown, or the kind of network: "wifi", "cellular", "ethernet".
  virtual std::string getNetworkStatus() const = 0;

  /// The device's model; nothing if unknown.
  virtual std::optional<std::string> platformString() const = 0;
  /// Free bytes on the store's disk; absent if unknown.
  virtual Value freeDiskSpace() const = 0;
  /// Free memory in kibibytes, at most the largest 32-bit number; 0 if unknown.
  virtual uint32_t getFreeRam() const = 0;
  /// Kibibytes as text for people: "812.4 MB".
  virtual std::string memoryFormatter(uint32_t kibibytes) const = 0;
};

}  // namespace morvik::kit
