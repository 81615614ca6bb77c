// What is documented to be lost with the power.
#pragma once

namespace morvik::proofs {

/// So long before the power went it was recorded at the earliest; `sync_seconds`: that the disk takes for what a flush
/// asks of it. A flush begins half a second after what it is for, and may find another one under way.
double powerCutLossSeconds(double sync_seconds);
inline constexpr double kPowerCutLossSeconds = 1.0;  ///< of a disk that is fast
/// Of a disk that is slow, in a run that has one.
inline constexpr double kSlowestSyncSeconds = 3;
/// As slow as none, to see that it is found out.
inline constexpr double kTooSlowSyncSeconds = 60;

}  // namespace morvik::proofs
