// Benchmarks whose verdict is a ratio of two times measured in one run.
#pragma once

#include <string>
#include <vector>

namespace morvik::bench {

/// `measured` should take at most `limit` times as long as `bound`; both are names of benchmarks of this program.
struct Ratio {
  std::string what;
  std::string measured;
  std::string bound;
  double limit = 0;
};

/// Runs the program's benchmarks (medians where there are repetitions), prints them and then each ratio with its limit.
/// The program's exit status: 0, or 1 when a ratio is above its limit. A ratio whose benchmarks were filtered out is
/// left out.
int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios);

}  // namespace morvik::bench
