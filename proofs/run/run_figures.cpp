#include "proofs/run/run_figures.h"

namespace morvik::proofs {

const char* nameOf(RunEnd end) {
  static constexpr std::array<const char*, kRunEnds> kNames = {
      "killed", "power lost", "power lost, torn", "power lost, scattered", "crashed", "ended in order"};
  return kNames[static_cast<size_t>(end)];
}

bool isPowerLoss(RunEnd end) {
  return end == RunEnd::kPowerLost || end == RunEnd::kPowerLostTorn || end == RunEnd::kPowerLostScattered;
}

uint64_t RunFigures::powerCuts() const {
  uint64_t cuts = 0;
  for (size_t end = 0; end < kRunEnds; ++end)
    cuts += isPowerLoss(static_cast<RunEnd>(end)) ? ends[end] : 0;
  return cuts;
}

uint64_t RunFigures::deaths() const {
  return powerCuts() + ends[static_cast<size_t>(RunEnd::kKilled)] + ends[static_cast<size_t>(RunEnd::kCrashed)];
}

RunFigures& RunFigures::operator+=(const RunFigures& other) {
  const auto add = [](auto& to, const auto& from) {
    for (size_t i = 0; i < to.size(); ++i)
      to[i] += from[i];
  };
  days += other.days;
  runs += other.runs;
  steps += other.steps;
  processes += other.processes;
  requests += other.requests;
  log_lines += other.log_lines;
  disk_changes += other.disk_changes;
  offline_phases += other.offline_phases;
  clock_jumps += other.clock_jumps;
  newer_stores += other.newer_stores;
  slow_disks += other.slow_disks;
  too_large += other.too_large;
  kept_in_memory += other.kept_in_memory;
  full_queues += other.full_queues;
  add(ends, other.ends);
  ends_at_a_change += other.ends_at_a_change;
  add(misbehaviours, other.misbehaviours);
  add(disk_faults, other.disk_faults);
  recorded += other.recorded;
  delivered += other.delivered;
  stored += other.stored;
  given_up += other.given_up;
  undone += other.undone;
  undone_in_memory += other.undone_in_memory;
  sent_again += other.sent_again;
  recorded_meanwhile += other.recorded_meanwhile;
  add(given_up_by_rule, other.given_up_by_rule);
  return *this;
}

}  // namespace morvik::proofs
