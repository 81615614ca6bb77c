// Chance of a simulation: the same seed gives the same throws on every machine.
#pragma once

#include <cmath>
#include <cstdint>

namespace morvik::simulation {

/// SplitMix64, whose whole state is one number; what a standard distribution makes of a generator is not the same
/// everywhere, so the distributions are here too.
class Dice {
 public:
  explicit Dice(uint64_t seed) : state_(seed) {}

  /// 64 random bits.
  uint64_t next() {
    state_ += 0x9e3779b97f4a7c15U;
    uint64_t mixed = state_;
    mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
    return mixed ^ (mixed >> 31U);
  }
  /// From 0 to `count` - 1; 0 when `count` is 0.
  uint64_t below(uint64_t count) { return count == 0 ? 0 : next() % count; }
  /// From `least` up to, and not including, `most`.
  double between(double least, double most) { return least + (most - least) * fraction(); }
  /// True so often.
  bool happens(double probability) { return fraction() < probability; }
  /// A whole number whose mean is `mean`: spread evenly from 0 to twice as much.
  uint64_t around(double mean) { return static_cast<uint64_t>(std::llround(between(0, 2 * mean))); }

 private:
  double fraction() {
    constexpr double kSteps = 9007199254740992.0;  // 2^53: what a double tells apart
    return static_cast<double>(next() >> 11U) / kSteps;
  }

  uint64_t state_;
};

}  // namespace morvik::simulation
