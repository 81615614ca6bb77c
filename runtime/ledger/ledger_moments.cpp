#include "runtime/ledger/ledger_moments.h"

#include <algorithm>

namespace morvik::runtime {

LedgerMoments::Moment LedgerMoments::begin(size_t activities, size_t impressions) {
  const std::scoped_lock hold(mutex_);
  State state{.moment = ++latest_, .under_way = under_way_};
  state.places[indexOf(LedgerKind::kActivities)] = activities;
  state.places[indexOf(LedgerKind::kImpressions)] = impressions;
  states_.push_back(state);
  return latest_;
}

void LedgerMoments::forget(Moment moment) {
  const std::scoped_lock hold(mutex_);
  std::erase_if(states_, [moment](const State& state) { return state.moment == moment; });
}

LedgerMoments::Left LedgerMoments::left(Moment moment) const {
  const std::scoped_lock hold(mutex_);
  const auto state = find(moment);
  if (state == states_.end())
    return {};
  uint64_t waiting = state->under_way;
  for (const size_t place : state->places)
    waiting += place;
  return {.waiting = waiting, .given_up = state->given_up};
}

uint64_t LedgerMoments::underWay() const {
  const std::scoped_lock hold(mutex_);
  return under_way_;
}

LedgerMoments::Moment LedgerMoments::firstAfter(LedgerKind kind, size_t index) const {
  const std::scoped_lock hold(mutex_);
  const auto first = std::partition_point(states_.begin(), states_.end(),
                                          [&](const State& state) { return state.places[indexOf(kind)] <= index; });
  return first == states_.end() ? latest_ + 1 : first->moment;
}

void LedgerMoments::wentUnderWay(LedgerKind kind, Moment first, uint64_t count) {
  if (!follows(kind))
    return;
  const std::scoped_lock hold(mutex_);
  under_way_ += count;
  for (State& state : states_) {
    if (state.moment >= first)
      state.under_way += count;
  }
}

void LedgerMoments::wasSettled(LedgerKind kind, Moment first, uint64_t count, bool is_lost) {
  if (!follows(kind))
    return;
  const std::scoped_lock hold(mutex_);
  under_way_ -= count;
  for (State& state : states_) {
    if (state.moment < first)
      continue;
    state.under_way -= count;
    if (is_lost)
      state.given_up += count;
  }
}

void LedgerMoments::wasLost(LedgerKind kind, Moment first, uint64_t count) {
  if (!follows(kind))
    return;
  const std::scoped_lock hold(mutex_);
  for (State& state : states_) {
    if (state.moment >= first)
      state.given_up += count;
  }
}

void LedgerMoments::listShrank(LedgerKind kind, const ListChange& change) {
  if (!follows(kind))
    return;
  const std::scoped_lock hold(mutex_);
  auto range = change.removed.begin();
  size_t gone = 0;  // elements of ranges that lie entirely before the place
  for (State& state : states_) {
    size_t& place = state.places[indexOf(kind)];
    for (; range != change.removed.end() && range->first + range->count <= place; ++range)
      gone += range->count;
    const bool is_within = range != change.removed.end() && range->first < place;
    place -= gone + (is_within ? place - range->first : 0);
  }
}

void LedgerMoments::listRecovered(LedgerKind kind, uint64_t more) {
  if (!follows(kind))
    return;
  const std::scoped_lock hold(mutex_);
  for (State& state : states_)
    state.places[indexOf(kind)] += more;
}

void LedgerMoments::listWasCut(LedgerKind kind, size_t size) {
  if (!follows(kind))
    return;
  const std::scoped_lock hold(mutex_);
  for (State& state : states_) {
    size_t& place = state.places[indexOf(kind)];
    if (place <= size)
      continue;
    state.given_up += place - size;
    place = size;
  }
}

std::vector<LedgerMoments::State>::const_iterator LedgerMoments::find(Moment moment) const {
  const auto found = std::partition_point(states_.begin(), states_.end(),
                                          [moment](const State& state) { return state.moment < moment; });
  return found != states_.end() && found->moment == moment ? found : states_.end();
}

}  // namespace morvik::runtime
