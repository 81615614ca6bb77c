#include "proofs/scripts/soak.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <utility>

#include "proofs/run/figure_line.h"
#include "proofs/run/transcript.h"
#include "simulation/workers.h"

namespace morvik::proofs {
namespace {

class Soak {
 public:
  Soak(const SoakOptions& options, const std::function<void(uint64_t, const SoakFailure&)>& progress)
      : options_(options), progress_(progress), hashes_(options.runs) {}

  SoakResult run() {
    simulation::runOnThreads(options_.workers, [this] { work(); });
    Transcript all;
    for (uint64_t run = 0; run < std::min<uint64_t>(next_, options_.runs); ++run)
      all.add(hashes_[run]);
    result_.hash = all.hash();
    return std::move(result_);
  }

 private:
  void work() {
    while (!options_.goes_on || options_.goes_on()) {
      const uint64_t run = next_++;
      if (run >= options_.runs)
        return;
      const uint64_t seed = options_.first_seed + run;
      simulation::callFor("the run with seed " + std::to_string(seed), [this, run, seed] {
        if (options_.begins)
          options_.begins(seed);
        take(run, playRandomRun({.seed = seed, .days = options_.days, .sabotage = options_.sabotage}));
      });
    }
  }

  void take(uint64_t run, RandomRunResult&& played) {
    const std::scoped_lock hold(mutex_);
    hashes_[run] = played.hash;
    result_.figures += played.figures;
    SoakFailure failure{options_.first_seed + run, std::move(played.complaints)};
    const bool failed = !failure.complaints.empty();
    if (failed)
      ++result_.failed;
    if (progress_)
      progress_(result_.figures.runs, failure);
    if (failed)
      keep(std::move(failure));
  }

  void keep(SoakFailure&& failure) {
    auto& failures = result_.failures;
    const auto place = std::upper_bound(failures.begin(), failures.end(), failure,
                                        [](const SoakFailure& a, const SoakFailure& b) { return a.seed < b.seed; });
    failures.insert(place, std::move(failure));
    if (failures.size() > kMaxSoakFailures)
      failures.pop_back();
  }

  const SoakOptions options_;
  const std::function<void(uint64_t, const SoakFailure&)>& progress_;
  std::atomic<uint64_t> next_{0};
  std::mutex mutex_;
  std::vector<uint64_t> hashes_;  ///< by run
  SoakResult result_;
};

}  // namespace

SoakResult soak(const SoakOptions& options,
                const std::function<void(uint64_t played, const SoakFailure& failure)>& progress) {
  return Soak(options, progress).run();
}

std::string figuresOf(const SoakResult& result) {
  const RunFigures& figures = result.figures;
  std::string text;
  addFigureLine(text, "runs", figures.runs);
  addFigureLine(text, "device-days", static_cast<uint64_t>(figures.days));
  addFigureLine(text, "steps, each checked", figures.steps);
  addFigureLine(text, "processes", figures.processes);
  for (size_t death = 0; death < kRunEnds; ++death)
    addFigureLine(text, nameOf(static_cast<RunEnd>(death)), figures.ends[death]);
  addFigureLine(text, "of these in the middle of a disk's work", figures.ends_at_a_change);
  addFigureLine(text, "requests", figures.requests);
  for (const MisbehaviourRow& row : misbehaviours()) {
    if (row.misbehaviour != Misbehaviour::kNone)
      addFigureLine(text, "answers: " + std::string(row.name),
                    figures.misbehaviours[static_cast<size_t>(row.misbehaviour)]);
  }
  addFigureLine(text, "offline phases", figures.offline_phases);
  addFigureLine(text, "clock jumps", figures.clock_jumps);
  addFigureLine(text, "processes with a newer store", figures.newer_stores);
  addFigureLine(text, "processes on a slow disk", figures.slow_disks);
  addFigureLine(text, "values over a limit, refused", figures.too_large);
  addFigureLine(text, "answers \"kept in memory only\"", figures.kept_in_memory);
  addFigureLine(text, "wishes while requests waited", figures.full_queues);
  for (size_t fault = 0; fault < kFlakyDiskFaults; ++fault)
    addFigureLine(text, "disk: " + std::string(nameOf(static_cast<FlakyDiskFault>(fault))), figures.disk_faults[fault]);
  addFigureLine(text, "changes of the disk", figures.disk_changes);
  addFigureLine(text, "log lines", figures.log_lines);
  addFigureLine(text, "recorded", figures.recorded);
  addFigureLine(text, "delivered", figures.delivered);
  addFigureLine(text, "stored at the end", figures.stored);
  addFigureLine(text, "given up by rule", figures.given_up);
  addFigureLine(text, "not kept yet when a death came", figures.undone);
  addFigureLine(text, "runs with a complaint", result.failed);
  for (const SoakFailure& failure : result.failures) {
    for (const std::string& complaint : failure.complaints)
      text += "  ! seed " + std::to_string(failure.seed) + ": " + complaint + "\n";
  }
  return text;
}

}  // namespace morvik::proofs
