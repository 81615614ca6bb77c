// Benchmarks that check the ratio of two times measured in one run.
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

/// Runs the program's benchmarks (medians if there are repetitions), prints them, then each ratio with its limit.
/// Returns the program's exit status: 0, or 1 if a ratio exceeds its limit. Ratios whose benchmarks were filtered out
/// are left out.
int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios);

}  // namespace morvik::bench
