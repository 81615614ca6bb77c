#include "services/dates.h"

#include <charconv>
#include <limits>

namespace morvik::services {
namespace {

constexpr int64_t kSecondsPerDay = 86'400;
constexpr int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr int kKoreaOffsetSeconds = 9 * 3600;
/// 64 bits of microseconds cover some 292,000 years before and after 1970.
constexpr int64_t kMaxYear = 300'000;

int64_t floorDivide(int64_t value, int64_t divisor) {
  const int64_t quotient = value / divisor;
  return value % divisor < 0 ? quotient - 1 : quotient;
}

/// The remainder of floorDivide: at least 0 and less than `divisor`. Multiplying back would overflow at the ends of the
/// range.
int64_t floorRemainder(int64_t value, int64_t divisor) {
  const int64_t remainder = value % divisor;
  return remainder < 0 ? remainder + divisor : remainder;
}

// Days are counted in eras of 400 years that begin on 1 March, so that the leap day is the last of its year.
constexpr int64_t kDaysPerEra = 146'097;
constexpr int64_t kDaysFromEraStartTo1970 = 719'468;

int64_t daysFromCivil(int64_t year, int month, int day) {
  if (month <= 2)
    --year;
  const int64_t era = floorDivide(year, 400);
  const int64_t year_of_era = year - era * 400;
  const int64_t day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * kDaysPerEra + day_of_era - kDaysFromEraStartTo1970;
}

void civilFromDays(int64_t days, kit::CalendarComponents& civil) {
  days += kDaysFromEraStartTo1970;
  const int64_t era = floorDivide(days, kDaysPerEra);
  const int64_t day_of_era = days - era * kDaysPerEra;
  const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int64_t shifted_month = (5 * day_of_year + 2) / 153;
  civil.day = static_cast<int>(day_of_year - (153 * shifted_month + 2) / 5 + 1);
  civil.month = static_cast<int>(shifted_month < 10 ? shifted_month + 3 : shifted_month - 9);
  civil.year = year_of_era + era * 400 + (civil.month <= 2 ? 1 : 0);
}

bool isLeapYear(int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int daysInMonth(int64_t year, int month) {
  constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : days[month - 1];
}

void appendPadded(int64_t number, size_t width, std::string& out) {
  char digits[24];
  if (number < 0) {
    out += '-';
    number = -number;
  }
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  const auto size = static_cast<size_t>(end - digits);
  if (size < width)
    out.append(width - size, '0');
  out.append(digits, size);
}

void putTwoDigits(int64_t number, char* to) {
  to[0] = static_cast<char>('0' + number / 10);
  to[1] = static_cast<char>('0' + number % 10);
}

std::string fourteenDigits(kit::Date date, int utc_offset_seconds) {
  const kit::CalendarComponents civil = civilAt(date, utc_offset_seconds);
  std::string text;
  if (civil.year < 0 || civil.year > 9999) {
    appendPadded(civil.year, 4, text);
  } else {
    char year[4];
    putTwoDigits(civil.year / 100, year);
    putTwoDigits(civil.year % 100, year + 2);
    text.append(year, sizeof year);
  }
  char rest[10];
  putTwoDigits(civil.month, rest);
  putTwoDigits(civil.day, rest + 2);
  putTwoDigits(civil.hour, rest + 4);
  putTwoDigits(civil.minute, rest + 6);
  putTwoDigits(civil.second, rest + 8);
  return text.append(rest, sizeof rest);
}

/// "yyyy-MM-ddTHH:mm:ss" with `between` in place of the T, at a fixed offset from UTC.
std::string separatedText(kit::Date date, int utc_offset_seconds, char between) {
  const kit::CalendarComponents civil = civilAt(date, utc_offset_seconds);
  std::string text;
  appendPadded(civil.year, 4, text);
  text += '-';
  appendPadded(civil.month, 2, text);
  text += '-';
  appendPadded(civil.day, 2, text);
  text += between;
  appendPadded(civil.hour, 2, text);
  text += ':';
  appendPadded(civil.minute, 2, text);
  text += ':';
  appendPadded(civil.second, 2, text);
  return text;
}

/// A reader of fixed-width decimal fields and fixed characters; after the first mismatch it stays failed.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : rest_(text) {}
  int number(size_t width) {
    if (rest_.size() < width)
      return fail();
    int value = 0;
    for (size_t i = 0; i < width; ++i) {
      if (rest_[i] < '0' || rest_[i] > '9')
        return fail();
      value = value * 10 + (rest_[i] - '0');
    }
    rest_.remove_prefix(width);
    return value;
  }
  bool take(char expected) {
    if (rest_.empty() || rest_.front() != expected)
      return false;
    rest_.remove_prefix(1);
    return true;
  }
  void expect(char expected) {
    if (!take(expected))
      fail();
  }
  size_t leadingDigits() const {
    size_t count = 0;
    while (count < rest_.size() && rest_[count] >= '0' && rest_[count] <= '9')
      ++count;
    return count;
  }
  int fail() {
    failed_ = true;
    rest_ = {};
    return 0;
  }
  bool failed() const { return failed_; }
  bool atEnd() const { return !failed_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool failed_ = false;
};

int readFractionMicroseconds(FieldReader& reader) {
  constexpr size_t kMaxDigits = 6;
  const size_t digits = reader.leadingDigits();
  if (digits == 0 || digits > kMaxDigits)
    return reader.fail();
  int fraction = reader.number(digits);
  for (size_t i = digits; i < kMaxDigits; ++i)
    fraction *= 10;
  return fraction;
}

int readOffsetSeconds(FieldReader& reader) {
  if (reader.take('Z'))
    return 0;
  const int sign = reader.take('-') ? -1 : 1;
  if (sign == 1)
    reader.expect('+');
  const int hours = reader.number(2);
  reader.expect(':');
  const int minutes = reader.number(2);
  if (hours > 23 || minutes > 59)
    return reader.fail();
  return sign * (hours * 3600 + minutes * 60);
}

}  // namespace

kit::CalendarComponents civilAt(kit::Date date, int utc_offset_seconds) {
  const int64_t seconds = floorDivide(date.microseconds, kMicrosecondsPerSecond) + utc_offset_seconds;
  const int64_t days = floorDivide(seconds, kSecondsPerDay);
  const auto second_of_day = static_cast<int>(floorRemainder(seconds, kSecondsPerDay));
  kit::CalendarComponents civil;
  civilFromDays(days, civil);
  civil.hour = second_of_day / 3600;
  civil.minute = second_of_day / 60 % 60;
  civil.second = second_of_day % 60;
  return civil;
}

bool isRealDate(const kit::CalendarComponents& c) {
  if (c.year < -kMaxYear || c.year > kMaxYear || c.month < 1 || c.month > 12)
    return false;
  if (c.day < 1 || c.day > daysInMonth(c.year, c.month))
    return false;
  return c.hour >= 0 && c.hour < 24 && c.minute >= 0 && c.minute < 60 && c.second >= 0 && c.second < 60;
}

std::optional<kit::Date> dateFromCivil(const kit::CalendarComponents& c, int utc_offset_seconds) {
  if (!isRealDate(c))
    return std::nullopt;
  const int64_t days = daysFromCivil(c.year, c.month, c.day);
  const int64_t seconds = days * kSecondsPerDay + c.hour * 3600 + c.minute * 60 + c.second - utc_offset_seconds;
  return kit::Date::fromSeconds(seconds);
}

std::string koreaDateText(kit::Date date) {
  return fourteenDigits(date, kKoreaOffsetSeconds);
}
std::string utcDateText(kit::Date date) {
  return fourteenDigits(date, 0);
}

std::string koreaDateTimeText(kit::Date date) {
  return separatedText(date, kKoreaOffsetSeconds, ' ');
}

std::string utcIsoDateText(kit::Date date) {
  return separatedText(date, 0, 'T') + 'Z';
}

std::string iso8601(kit::Date date) {
  std::string text = separatedText(date, 0, 'T');
  const int64_t fraction = floorRemainder(date.microseconds, kMicrosecondsPerSecond);
  if (fraction != 0) {
    text += '.';
    appendPadded(fraction, 6, text);
  }
  text += 'Z';
  return text;
}

std::optional<kit::Date> dateFromIso8601(std::string_view text) {
  FieldReader reader(text);
  kit::CalendarComponents civil;
  civil.year = reader.number(4);
  reader.expect('-');
  civil.month = reader.number(2);
  reader.expect('-');
  civil.day = reader.number(2);
  reader.expect('T');
  civil.hour = reader.number(2);
  reader.expect(':');
  civil.minute = reader.number(2);
  reader.expect(':');
  civil.second = reader.number(2);
  const int fraction = reader.take('.') ? readFractionMicroseconds(reader) : 0;
  const int offset_seconds = readOffsetSeconds(reader);
  if (!reader.atEnd())
    return std::nullopt;
  auto date = dateFromCivil(civil, offset_seconds);
  if (date)
    date->microseconds += fraction;
  return date;
}

std::optional<kit::Date> DateFormatter::dateFromString(std::string_view text) const {
  FieldReader reader(text);
  kit::CalendarComponents civil;
  civil.year = reader.number(4);
  civil.month = reader.number(2);
  civil.day = reader.number(2);
  civil.hour = reader.number(2);
  civil.minute = reader.number(2);
  civil.second = reader.number(2);
  if (!reader.atEnd() || !isRealDate(civil))
    return std::nullopt;
  return calendar_->date(civil);
}

}  // namespace morvik::services
