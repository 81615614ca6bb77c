// One scripted run, played once for each change that it makes on its disk and cut off there; and once for each call
// that the disk can fail.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proofs/scripts/scripted_run.h"

namespace morvik::proofs {

/// What happens at a point.
enum class PointMode : uint8_t {
  kKill,
  kPowerCut,           ///< what was not synced is gone
  kTornPowerCut,       ///< the write that is cut is half there
  kScatteredPowerCut,  ///< of what was not synced some is there
  kDiskFull,
  kDiskFullForLonger,
  kSyncError,
  kSyncErrorForLonger,
  kReadErrorAtStart,
  kReadErrorAtStartForLonger,
};
inline constexpr std::array kPointModes = {
    PointMode::kKill,
    PointMode::kPowerCut,
    PointMode::kTornPowerCut,
    PointMode::kScatteredPowerCut,
    PointMode::kDiskFull,
    PointMode::kDiskFullForLonger,
    PointMode::kSyncError,
    PointMode::kSyncErrorForLonger,
    PointMode::kReadErrorAtStart,
    PointMode::kReadErrorAtStartForLonger,
};
/// "kill", "power", "torn", "scattered", "full", "full-longer", "sync", "sync-longer", "read", "read-longer".
const char* nameOf(PointMode mode);
std::optional<PointMode> pointModeNamed(std::string_view name);

/// Calls that fail in a row in the modes that last longer.
inline constexpr uint64_t kLongerFaultCalls = 30;
/// So many complaints are kept as text.
inline constexpr size_t kMaxComplaintTexts = 20;

struct CrashPointOptions {
  std::vector<PointMode> modes{kPointModes.begin(), kPointModes.end()};
  /// Of the points, every so many-th is tried; of each mode the first is point 1 + seed modulo this. At least 1.
  uint64_t stride = 1;
  /// Draws what is left of unsynced writes.
  uint64_t seed = 1;
  /// Threads.
  unsigned workers = 2;
  Sabotage sabotage = Sabotage::kNone;
};

/// The same for the same options, but for `workers`, whose number changes nothing.
struct CrashPointResult {
  std::array<uint64_t, kPointModes.size()> points{};  ///< there are, by mode
  std::array<uint64_t, kPointModes.size()> tried{};
  uint64_t tried_in_all = 0;
  uint64_t installs = 0;
  RunFigures figures;
  std::map<std::string, uint64_t> complaints;  ///< by invariant
  std::vector<std::string> texts;              ///< the first complaints, in the order of the points

  uint64_t count(const std::string& invariant) const;
};

/// Plays one run per point, and one that nothing cuts off, to count the points. `progress` is told, on any thread, one
/// call at a time, how many of the former are played, of how many.
CrashPointResult tryCrashPoints(const CrashPointOptions& options,
                                const std::function<void(uint64_t played, uint64_t of)>& progress = {});

/// One of them, as tryCrashPoints() plays it.
ScriptedRunOptions runAtPoint(PointMode mode, uint64_t number, uint64_t seed);

/// The figures, a line each.
std::string figuresOf(const CrashPointResult& result);

}  // namespace morvik::proofs
