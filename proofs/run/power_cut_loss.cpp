#include "proofs/run/power_cut_loss.h"

#include <algorithm>
#include <chrono>

#include "host/store/sqlite_store.h"

namespace morvik::proofs {

double powerCutLossSeconds(double sync_seconds) {
  const double flush_delay_seconds = std::chrono::duration<double>(host::kFlushDelay).count();
  return std::max(kPowerCutLossSeconds, flush_delay_seconds + 2 * sync_seconds);
}

}  // namespace morvik::proofs
