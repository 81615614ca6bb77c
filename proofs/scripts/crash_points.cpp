#include "proofs/scripts/crash_points.h"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "proofs/oracle/invariants.h"
#include "proofs/run/figure_line.h"
#include "simulation/dice.h"
#include "simulation/workers.h"

namespace morvik::proofs {
namespace {

struct Point {
  PointMode mode;
  uint64_t number;
};

std::string wordsOf(const Point& point) {
  return std::string(nameOf(point.mode)) + " " + std::to_string(point.number);
}

constexpr size_t placeOf(PointMode mode) {
  return static_cast<size_t>(mode);
}

uint64_t pointsOf(PointMode mode, const ScriptedRunResult& whole) {
  const auto faults = [&whole](FlakyDiskFault fault) { return whole.fault_points[static_cast<size_t>(fault)]; };
  switch (mode) {
    case PointMode::kKill:
    case PointMode::kPowerCut:
    case PointMode::kTornPowerCut:
    case PointMode::kScatteredPowerCut:
      return whole.changes;
    case PointMode::kDiskFull:
    case PointMode::kDiskFullForLonger:
      return faults(FlakyDiskFault::kFull);
    case PointMode::kSyncError:
    case PointMode::kSyncErrorForLonger:
      return faults(FlakyDiskFault::kSyncError);
    case PointMode::kReadErrorAtStart:
    case PointMode::kReadErrorAtStartForLonger:
      return faults(FlakyDiskFault::kReadErrorAtStart);
  }
  return 0;
}

class Trial {
 public:
  Trial(const CrashPointOptions& options, const std::function<void(uint64_t, uint64_t)>& progress)
      : options_(options), progress_(progress) {}

  CrashPointResult run() {
    choosePoints(playUncut());
    texts_.resize(points_.size());
    simulation::runOnThreads(options_.workers, [this] { work(); });
    for (const auto& of_point : texts_)
      result_.texts.insert(result_.texts.end(), of_point.begin(), of_point.end());
    if (result_.texts.size() > kMaxComplaintTexts)
      result_.texts.resize(kMaxComplaintTexts);
    return std::move(result_);
  }

 private:
  ScriptedRunResult playUncut() {
    ScriptedRunResult whole = playScriptedRun({.seed = options_.seed});
    addComplaints(whole);
    for (const std::string& text : whole.texts)
      result_.texts.push_back("without a cut: " + text);
    return whole;
  }

  void choosePoints(const ScriptedRunResult& whole) {
    const uint64_t stride = std::max<uint64_t>(options_.stride, 1);
    for (const PointMode mode : options_.modes) {
      const uint64_t count = result_.points[placeOf(mode)] = pointsOf(mode, whole);
      for (uint64_t number = 1 + options_.seed % stride; number <= count; number += stride)
        points_.push_back({mode, number});
    }
  }

  void work() {
    for (size_t next = next_++; next < points_.size(); next = next_++)
      take(next, playAt(points_[next]));
  }

  ScriptedRunResult playAt(const Point& point) const {
    ScriptedRunOptions run = runAtPoint(point.mode, point.number, options_.seed);
    run.sabotage = options_.sabotage;
    return playScriptedRun(run);
  }

  void take(size_t place, const ScriptedRunResult& played) {
    const Point& point = points_[place];
    const std::scoped_lock hold(mutex_);
    ++result_.tried[placeOf(point.mode)];
    ++result_.tried_in_all;
    result_.installs += played.installs;
    result_.figures += played.figures;
    addComplaints(played);
    for (const std::string& text : played.texts)
      texts_[place].push_back(wordsOf(point) + ": " + text);
    if (progress_)
      progress_(result_.tried_in_all, points_.size());
  }

  void addComplaints(const ScriptedRunResult& played) {
    for (const auto& [invariant, times] : played.complaints)
      result_.complaints[invariant] += times;
  }

  const CrashPointOptions options_;
  const std::function<void(uint64_t, uint64_t)>& progress_;
  std::vector<Point> points_;
  std::atomic<size_t> next_{0};
  std::mutex mutex_;
  CrashPointResult result_;
  std::vector<std::vector<std::string>> texts_;  ///< by point
};

ScriptedRunOptions cutAt(uint64_t number, const simulation::DiskCut& cut) {
  ScriptedRunOptions run;
  run.cut_before_change = number;
  run.cut = cut;
  return run;
}

ScriptedRunOptions failingAt(FlakyDiskFault fault, uint64_t first, uint64_t calls) {
  ScriptedRunOptions run;
  run.fault = PlannedFault{fault, first, calls};
  return run;
}

}  // namespace

const char* nameOf(PointMode mode) {
  static constexpr std::array<const char*, kPointModes.size()> kNames = {
      "kill", "power", "torn", "scattered", "full", "full-longer", "sync", "sync-longer", "read", "read-longer"};
  return kNames[placeOf(mode)];
}

std::optional<PointMode> pointModeNamed(std::string_view name) {
  const auto* const found =
      std::find_if(kPointModes.begin(), kPointModes.end(), [name](PointMode mode) { return name == nameOf(mode); });
  return found == kPointModes.end() ? std::nullopt : std::optional(*found);
}

namespace {

ScriptedRunOptions deathAtPoint(PointMode mode, uint64_t number, uint64_t seed) {
  const uint64_t drawn = simulation::Dice(seed ^ (number * 0x9e3779b97f4a7c15U)).next();
  switch (mode) {
    case PointMode::kKill:
      return cutAt(number, simulation::DiskCut::killed());
    case PointMode::kPowerCut:
      return cutAt(number, simulation::DiskCut::powerLost(simulation::PowerLoss::kNothingUnsynced, drawn));
    case PointMode::kTornPowerCut:
      return cutAt(number, simulation::DiskCut::powerLost(simulation::PowerLoss::kTorn, drawn));
    case PointMode::kScatteredPowerCut:
      return cutAt(number, simulation::DiskCut::powerLost(simulation::PowerLoss::kScattered, drawn));
    case PointMode::kDiskFull:
      return failingAt(FlakyDiskFault::kFull, number, 1);
    case PointMode::kDiskFullForLonger:
      return failingAt(FlakyDiskFault::kFull, number, kLongerFaultCalls);
    case PointMode::kSyncError:
      return failingAt(FlakyDiskFault::kSyncError, number, 1);
    case PointMode::kSyncErrorForLonger:
      return failingAt(FlakyDiskFault::kSyncError, number, kLongerFaultCalls);
    case PointMode::kReadErrorAtStart:
      return failingAt(FlakyDiskFault::kReadErrorAtStart, number, 1);
    case PointMode::kReadErrorAtStartForLonger:
      return failingAt(FlakyDiskFault::kReadErrorAtStart, number, kLongerFaultCalls);
  }
  return {};
}

}  // namespace

ScriptedRunOptions runAtPoint(PointMode mode, uint64_t number, uint64_t seed) {
  ScriptedRunOptions run = deathAtPoint(mode, number, seed);
  run.seed = seed;
  return run;
}

CrashPointResult tryCrashPoints(const CrashPointOptions& options,
                                const std::function<void(uint64_t played, uint64_t of)>& progress) {
  return Trial(options, progress).run();
}

namespace {

/// What the rules let go, by name.
void addGivenUp(std::string& text, const RunFigures& figures) {
  const auto rules = removalRules();
  for (size_t row = 0; row < rules.size(); ++row) {
    if (figures.given_up_by_rule[row] != 0)
      addFigureLine(text,
                    std::string("of these ") + kRecordKindNames[indexOf(rules[row].kind)] + " " + rules[row].words,
                    figures.given_up_by_rule[row]);
  }
}

void addRecords(std::string& text, const RunFigures& figures) {
  addFigureLine(text, "recorded", figures.recorded);
  addFigureLine(text, "delivered", figures.delivered);
  addFigureLine(text, "stored at the end", figures.stored);
  addFigureLine(text, "given up by rule", figures.given_up);
  addGivenUp(text, figures);
  addFigureLine(text, "not kept yet when the process ended", figures.undone);
  addFigureLine(text, "of these kept in memory only", figures.undone_in_memory);
  addFigureLine(text, "activities sent again", figures.sent_again);
}

void addOccasions(std::string& text, const RunFigures& figures) {
  addFigureLine(text, "processes with a newer store", figures.newer_stores);
  addFigureLine(text, "answers \"kept in memory only\"", figures.kept_in_memory);
  addFigureLine(text, "processes on a slow disk", figures.slow_disks);
  addFigureLine(text, "values over a limit, refused", figures.too_large);
  addFigureLine(text, "wishes while requests waited", figures.full_queues);
}

}  // namespace

uint64_t CrashPointResult::count(const std::string& invariant) const {
  const auto found = complaints.find(invariant);
  return found == complaints.end() ? 0 : found->second;
}

std::string figuresOf(const CrashPointResult& result) {
  std::string text;
  for (const PointMode mode : kPointModes) {
    const size_t place = placeOf(mode);
    if (result.points[place] != 0)
      addFigureLine(text,
                    "points of \"" + std::string(nameOf(mode)) + "\" tried, of " + std::to_string(result.points[place]),
                    result.tried[place]);
  }
  addFigureLine(text, "points tried in all", result.tried_in_all);
  addFigureLine(text, "deaths, with those of the script", result.figures.deaths());
  addFigureLine(text, "steps, each checked", result.figures.steps);
  addFigureLine(text, "installs attributed", result.installs);
  addRecords(text, result.figures);
  addOccasions(text, result.figures);
  for (const std::string& invariant : complaintNames())
    addFigureLine(text, "against \"" + invariant + "\"", result.count(invariant));
  for (const std::string& each : result.texts)
    text += "  ! " + each + "\n";
  return text;
}

}  // namespace morvik::proofs
