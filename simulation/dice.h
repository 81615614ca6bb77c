// Random numbers for a simulation: the same seed gives the same numbers on every machine.
#pragma once

#include <cmath>
#include <cstdint>

namespace morvik::simulation {

/// SplitMix64, whose state is a single number. The standard distributions differ between libraries, so the
/// distributions are here too.
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
  /// From `least` to `most`, excluding `most`.
  double between(double least, double most) { return least + (most - least) * fraction(); }
  /// True with this probability.
  bool happens(double probability) { return fraction() < probability; }
  /// An integer with mean `mean`: uniform from 0 to twice the mean.
  uint64_t around(double mean) { return static_cast<uint64_t>(std::llround(between(0, 2 * mean))); }

 private:
  double fraction() {
    constexpr double kSteps = 9007199254740992.0;  // 2^53: the resolution of a double
    return static_cast<double>(next() >> 11U) / kSteps;
  }

  uint64_t state_;
};

}  // namespace morvik::simulation
