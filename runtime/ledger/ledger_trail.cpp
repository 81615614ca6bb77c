#include "runtime/ledger/ledger_trail.h"

#include <algorithm>
#include <utility>

#include "services/MorvikGVUserDefaults.h"

namespace morvik::runtime {

/// Numbers follow the clock, so that those of a file that recovers later differ.
LedgerTrail::LedgerTrail(MachineStore& store, const kit::Clock& clock)
    : store_(store),
      clock_(clock),
      first_number_(static_cast<uint64_t>(
          std::clamp<int64_t>(clock.now().microseconds, 1, static_cast<int64_t>(kMaxTrailNumber / 2)))),
      last_number_(first_number_ - 1) {
  takeOver();
}

void LedgerTrail::takeOver() noexcept {
  forgetIfWished();
  try {
    const kit::Value stored = read();
    SoundTrail sound = soundTrail(stored);
    if (sound.dropped > 0) {
      dropped_ += sound.dropped;
      store_.set(kTrailKey, sound.trail);
    }
    if (last_number_ < first_number_)
      first_number_ = std::max(first_number_, nextTrailNumber(sound.trail));
    last_number_ = std::max(last_number_, first_number_ - 1);
    for (const kit::Value& end : endsOfEarlierOnes(sound.trail, first_number_))
      append(end);
  } catch (...) {
  }
}

uint64_t LedgerTrail::begun(const kit::Array& event_ids) noexcept {
  try {
    append(trailBegin(++last_number_, now(), event_ids));
    return last_number_;
  } catch (...) {
    return 0;
  }
}

void LedgerTrail::ended(TrailEnd end) noexcept {
  try {
    if (end.number == 0 || !isOpen(read(), end.number))
      return;
    if (end.outcome != TrailOutcome::kAbandoned)
      end.ended = now();
    append(trailEnd(end));
  } catch (...) {
  }
}

void LedgerTrail::givenUp(LedgerReason reason, const kit::Array& event_ids) noexcept {
  try {
    append(trailGivenUp(now(), ledgerRules()[ledgerRuleOf(LedgerKind::kActivities, reason)].key, event_ids));
  } catch (...) {
  }
}

void LedgerTrail::forgetIfWished() noexcept {
  try {
    if (isForgotten() && !read().isAbsent())
      store_.set(kTrailKey, {});
  } catch (...) {
  }
}

size_t LedgerTrail::takeDropped() {
  return dropped_.load(std::memory_order_relaxed) == 0 ? 0 : dropped_.exchange(0);
}

bool LedgerTrail::isForgotten() const {
  return store_.get(services::property::MorvikCoreUserInfo_isGDPRForgetMe).boolean();
}

void LedgerTrail::append(kit::Value element) {
  if (isForgotten())
    return;
  store_.append(kTrailKey, std::move(element));
  const kit::Value trail = read();
  if (isTrailTooLong(trail))
    store_.replace(kTrailKey, trail, shortenedTrail(trail));
}

}  // namespace morvik::runtime
