// A scripted run of one device on a disk that can fail: everything that is recorded in some hours, with batches refused
// and lost, deaths and a wish to be forgotten, in virtual time. The same to the byte each time, up to the change of the
// disk at which a run is cut off.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proofs/run/flaky_disk.h"
#include "proofs/run/run_figures.h"
#include "proofs/run/sabotage.h"
#include "simulation/simulated_disk.h"

namespace morvik::proofs {

struct ScriptedRunOptions {
  /// The disk is cut off before the change with this number; 0: never, but where the run itself ends that way.
  uint64_t cut_before_change = 0;
  simulation::DiskCut cut;
  std::optional<PlannedFault> fault;
  /// Draws what the script leaves open.
  uint64_t seed = 1;
  Sabotage sabotage = Sabotage::kNone;
  /// Told what happens, line by line; empty: nobody.
  std::function<void(std::string_view line)> trace;
};

struct ScriptedRunResult {
  RunFigures figures;
  uint64_t changes = 0;                                   ///< of the disk
  std::array<uint64_t, kFlakyDiskFaults> fault_points{};  ///< calls that a fault can meet
  uint64_t installs = 0;                                  ///< attributed, of devices that no death undid
  std::map<std::string, uint64_t> complaints;             ///< by invariant
  std::vector<std::string> texts;                         ///< the first of them

  bool isFine() const { return texts.empty(); }
};

/// Plays it to its healthy end. What is thrown in it is complained of. Any thread; shares nothing with other runs.
ScriptedRunResult playScriptedRun(const ScriptedRunOptions& options);

}  // namespace morvik::proofs
