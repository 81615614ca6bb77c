// Many random runs, one after the other on each of some threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "proofs/scripts/random_run.h"

namespace morvik::proofs {

struct SoakOptions {
  uint64_t first_seed = 1;
  /// Seeds in a row.
  uint64_t runs = 100;
  double days = 2;
  /// Threads.
  unsigned workers = 2;
  /// Asked before each run; false: no more begin. Any thread. Empty: all are played.
  std::function<bool()> goes_on;
  /// Told the seed of each run before it begins, on its thread. Empty: nobody.
  std::function<void(uint64_t seed)> begins;
  Sabotage sabotage = Sabotage::kNone;
};

/// A run in which something was complained of.
struct SoakFailure {
  uint64_t seed = 0;
  std::vector<std::string> complaints;
};
/// So many are kept: those with the lowest seeds.
inline constexpr size_t kMaxSoakFailures = 20;

/// Of the runs that were played; the same whatever the number of workers is.
struct SoakResult {
  RunFigures figures;
  uint64_t hash = 0;                  ///< of all runs, in the order of their seeds
  uint64_t failed = 0;                ///< runs
  std::vector<SoakFailure> failures;  ///< by seed
};

/// `progress` is told, one call at a time, how many are played, and what the latest one complained of. A run that
/// throws is named in the std::runtime_error that is thrown then.
SoakResult soak(const SoakOptions& options,
                const std::function<void(uint64_t played, const SoakFailure& failure)>& progress = {});

/// The figures, a line each, and the failures.
std::string figuresOf(const SoakResult& result);

}  // namespace morvik::proofs
