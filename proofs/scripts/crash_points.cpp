#include "proofs/scripts/crash_points.h"

#include <algorithm>
#include <atomic>
#include <mutex>

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
  const auto faults = [&whole](DiskFault::At at) { return whole.fault_points[static_cast<size_t>(at)]; };
  switch (mode) {
    case PointMode::kKill:
    case PointMode::kPowerCut:
    case PointMode::kTornPowerCut:
    case PointMode::kScatteredPowerCut:
      return whole.changes;
    case PointMode::kDiskFull:
    case PointMode::kDiskFullForLonger:
      return faults(DiskFault::At::kWrite);
    case PointMode::kSyncError:
    case PointMode::kSyncErrorForLonger:
      return faults(DiskFault::At::kSync);
    case PointMode::kReadErrorAtStart:
    case PointMode::kReadErrorAtStartForLonger:
      return faults(DiskFault::At::kReadAtStart);
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
    ScriptedRunOptions life = runAtPoint(point.mode, point.number, options_.seed);
    life.sabotage = options_.sabotage;
    return playScriptedRun(life);
  }

  void take(size_t place, const ScriptedRunResult& lived) {
    const Point& point = points_[place];
    const std::scoped_lock hold(mutex_);
    ++result_.tried[placeOf(point.mode)];
    ++result_.tried_in_all;
    result_.deaths += lived.cuts;
    result_.installs += lived.installs;
    result_.sent_twice += lived.sent_twice;
    result_.totals += lived.totals;
    for (size_t i = 0; i < kOccasions; ++i)
      result_.occasions[i] += lived.occasions[i];
    addComplaints(lived);
    for (const std::string& text : lived.texts)
      texts_[place].push_back(wordsOf(point) + ": " + text);
    if (progress_)
      progress_(result_.tried_in_all, points_.size());
  }

  void addComplaints(const ScriptedRunResult& lived) {
    for (size_t i = 0; i < kComplaints; ++i)
      result_.complaints[i] += lived.complaints[i];
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
  ScriptedRunOptions life;
  life.cut_before_change = number;
  life.cut = cut;
  return life;
}

ScriptedRunOptions failingAt(DiskFault::At at, uint64_t first, uint64_t calls) {
  ScriptedRunOptions life;
  life.fault = DiskFault{at, first, calls};
  return life;
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
      return failingAt(DiskFault::At::kWrite, number, 1);
    case PointMode::kDiskFullForLonger:
      return failingAt(DiskFault::At::kWrite, number, kLongerFaultCalls);
    case PointMode::kSyncError:
      return failingAt(DiskFault::At::kSync, number, 1);
    case PointMode::kSyncErrorForLonger:
      return failingAt(DiskFault::At::kSync, number, kLongerFaultCalls);
    case PointMode::kReadErrorAtStart:
      return failingAt(DiskFault::At::kReadAtStart, number, 1);
    case PointMode::kReadErrorAtStartForLonger:
      return failingAt(DiskFault::At::kReadAtStart, number, kLongerFaultCalls);
  }
  return {};
}

}  // namespace

ScriptedRunOptions runAtPoint(PointMode mode, uint64_t number, uint64_t seed) {
  ScriptedRunOptions life = deathAtPoint(mode, number, seed);
  life.seed = seed;
  return life;
}

CrashPointResult tryCrashPoints(const CrashPointOptions& options,
                                const std::function<void(uint64_t lived, uint64_t of)>& progress) {
  return Trial(options, progress).run();
}

namespace {

/// What the rules let go, by name.
void addGivenUp(std::string& text, const ScriptedRunTotals& totals) {
  const auto rules = removalRules();
  for (size_t row = 0; row < rules.size(); ++row) {
    if (totals.given_up[row] != 0)
      addFigureLine(text,
                    std::string("of these ") + kRecordKindNames[indexOf(rules[row].kind)] + " " + rules[row].words,
                    totals.given_up[row]);
  }
}

}  // namespace

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
  addFigureLine(text, "deaths, with those of the script", result.deaths);
  addFigureLine(text, "installs attributed", result.installs);
  addFigureLine(text, "recorded", result.totals.recorded);
  addFigureLine(text, "delivered", result.totals.delivered);
  addFigureLine(text, "stored at the end", result.totals.stored);
  addFigureLine(text, "given up by rule", result.totals.givenUp());
  addGivenUp(text, result.totals);
  addFigureLine(text, "not kept yet when the cut came", result.totals.not_kept_yet);
  addFigureLine(text, "kept in memory only, and gone with it", result.totals.kept_in_memory);
  addFigureLine(text, "events sent twice for a reason", result.sent_twice);
  for (size_t i = 0; i < kOccasions; ++i)
    addFigureLine(text, nameOf(static_cast<Occasion>(i)), result.occasions[i]);
  for (size_t i = 0; i < kComplaints; ++i)
    addFigureLine(text, nameOf(static_cast<Complaint>(i)), result.complaints[i]);
  for (const std::string& each : result.texts)
    text += "  ! " + each + "\n";
  return text;
}

}  // namespace morvik::proofs
