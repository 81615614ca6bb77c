#include "kit/date.h"

#include <cmath>

namespace morvik::kit {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

int64_t saturatedAdd(int64_t a, int64_t b) {
  if (b > 0 && a > kMax - b)
    return kMax;
  if (b < 0 && a < kMin - b)
    return kMin;
  return a + b;
}

}  // namespace

Date Date::shiftedBySeconds(double seconds) const {
  if (std::isnan(seconds))
    return *this;
  const double moved = seconds * 1e6;
  // 2^63 is exact as a double; anything at or beyond it does not fit.
  constexpr double limit = 9223372036854775808.0;
  if (moved >= limit)
    return {kMax};
  if (moved <= -limit)
    return {kMin};
  return {saturatedAdd(microseconds, std::llround(moved))};
}

int64_t Date::millisecondsSince(Date earlier) const {
  const int64_t a = microseconds;
  const int64_t b = earlier.microseconds;
  if (b < 0 && a > kMax + b)
    return kMax / 1000;
  if (b > 0 && a < kMin + b)
    return kMin / 1000;
  return (a - b) / 1000;
}

}  // namespace morvik::kit
