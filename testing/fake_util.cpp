#include "testing/fake_util.h"

#include "services/converters.h"
#include "services/dates.h"
#include "services/memory_text.h"
#include "services/url_query.h"

namespace morvik::testing {

kit::Value FakeUtil::checkNilToBlankString(const kit::Value& value) const {
  return services::checkNilToBlankString(value);
}
bool FakeUtil::checkNilToNo(const kit::Value& value) const {
  return services::checkNilToNo(value);
}
int64_t FakeUtil::checkIntegerNilToZero(const kit::Value& value) const {
  return services::checkIntegerNilToZero(value);
}
int64_t FakeUtil::checkLongLongNilToZero(const kit::Value& value) const {
  return services::checkLongLongNilToZero(value);
}
double FakeUtil::checkDoubleNilToZero(const kit::Value& value) const {
  return services::checkDoubleNilToZero(value);
}
int32_t FakeUtil::checkNilToZero(const kit::Value& value) const {
  return services::checkNilToZero(value);
}
kit::Value FakeUtil::getURLParmaters(const kit::Url& url) const {
  return services::urlQuery(url.absoluteString());
}
std::string FakeUtil::getKoreaDateFormateDate(kit::Date date) const {
  return services::koreaDateText(date);
}
std::string FakeUtil::getUTCFormateDate(kit::Date date) const {
  return services::utcDateText(date);
}
double FakeUtil::timeIntervalSinceServerDate(kit::Date device_date, double sinceBaseTime) const {
  return sinceBaseTime - device_date.secondsSince1970();
}
std::optional<std::string> FakeUtil::getUTCFormateDateISO(kit::Date date) const {
  const std::lock_guard lock(mutex_);
  if (!knows_iso_dates_)
    return std::nullopt;
  return services::utcIsoDateText(date);
}
std::optional<std::string> FakeUtil::IDFA() const {
  const std::lock_guard lock(mutex_);
  return idfa_;
}
std::string FakeUtil::getNetworkStatus() const {
  const std::lock_guard lock(mutex_);
  return network_status_;
}
std::optional<std::string> FakeUtil::platformString() const {
  const std::lock_guard lock(mutex_);
  return platform_;
}
kit::Value FakeUtil::freeDiskSpace() const {
  const std::lock_guard lock(mutex_);
  return free_disk_bytes_;
}
uint32_t FakeUtil::getFreeRam() const {
  const std::lock_guard lock(mutex_);
  return free_ram_kibibytes_;
}
std::string FakeUtil::memoryFormatter(uint32_t kibibytes) const {
  return services::memoryText(kibibytes);
}

}  // namespace morvik::testing
