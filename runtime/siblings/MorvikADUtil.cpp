#include "runtime/siblings/MorvikADUtil.h"

#include "services/converters.h"
#include "services/dates.h"
#include "services/memory_text.h"
#include "services/url_query.h"

namespace morvik::runtime {

kit::Value MorvikADUtil::checkNilToBlankString(const kit::Value& value) const {
  return services::checkNilToBlankString(value);
}

bool MorvikADUtil::checkNilToNo(const kit::Value& value) const {
  return services::checkNilToNo(value);
}

int64_t MorvikADUtil::checkIntegerNilToZero(const kit::Value& value) const {
  return services::checkIntegerNilToZero(value);
}

int64_t MorvikADUtil::checkLongLongNilToZero(const kit::Value& value) const {
  return services::checkLongLongNilToZero(value);
}

double MorvikADUtil::checkDoubleNilToZero(const kit::Value& value) const {
  return services::checkDoubleNilToZero(value);
}

int32_t MorvikADUtil::checkNilToZero(const kit::Value& value) const {
  return services::checkNilToZero(value);
}

kit::Value MorvikADUtil::getURLParmaters(const kit::Url& url) const {
  return services::urlQuery(url.absoluteString());
}

std::string MorvikADUtil::getKoreaDateFormateDate(kit::Date date) const {
  return services::koreaDateText(date);
}

std::string MorvikADUtil::getUTCFormateDate(kit::Date date) const {
  return services::utcDateText(date);
}

std::optional<std::string> MorvikADUtil::getUTCFormateDateISO(kit::Date date) const {
  return services::utcIsoDateText(date);
}

double MorvikADUtil::timeIntervalSinceServerDate(kit::Date device_date, double sinceBaseTime) const {
  return sinceBaseTime - device_date.secondsSince1970();
}

void MorvikADUtil::replaceIDFA(const std::string& idfa) {
  std::call_once(idfa_replacement_, [&] {
    later_idfa_ = idfa;
    is_idfa_replaced_ = true;
  });
}

std::string MorvikADUtil::getNetworkStatus() const {
  return machine_.networkStatus(facts_.has_loopback_endpoint);
}

kit::Value MorvikADUtil::freeDiskSpace() const {
  const std::optional<int64_t> bytes = machine_.freeDiskBytes(facts_.disk_path);
  return bytes ? kit::Value(*bytes) : kit::Value();
}

uint32_t MorvikADUtil::getFreeRam() const {
  return machine_.freeMemoryKibibytes();
}

std::string MorvikADUtil::memoryFormatter(uint32_t kibibytes) const {
  return services::memoryText(kibibytes);
}

}  // namespace morvik::runtime
