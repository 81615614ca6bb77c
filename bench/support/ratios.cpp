#include "bench/support/ratios.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

namespace morvik::bench {
namespace {

/// Prints as usual and keeps the times: the median of a repeated benchmark, else its only time.
class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
      if (single || run.aggregate_name == "median")
        times_[run.run_name.function_name + '/' + run.run_name.args] = run;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  /// CPU time of an iteration in the benchmark's own unit (other work on the machine does not count); 0 if it did not
  /// run.
  double timeOf(const std::string& name) const {
    const auto found = times_.find(name);
    return found == times_.end() ? 0 : found->second.GetAdjustedCPUTime();
  }

 private:
  std::map<std::string, Run> times_;
};

bool printRatio(const KeepingReporter& reporter, const Ratio& ratio) {
  const double measured = reporter.timeOf(ratio.measured);
  const double bound = reporter.timeOf(ratio.bound);
  if (measured == 0 || bound == 0)
    return true;
  const double quotient = measured / bound;
  const bool kept = quotient <= ratio.limit;
  std::printf("%-72s %6.2f  (at most %.2f)  %s\n", ratio.what.c_str(), quotient, ratio.limit, kept ? "kept" : "ABOVE");
  return kept;
}

}  // namespace

int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  KeepingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  bool all_kept = true;
  for (const Ratio& ratio : ratios)
    all_kept = printRatio(reporter, ratio) && all_kept;
  return all_kept ? 0 : 1;
}

}  // namespace morvik::bench
