#include "runtime/machine/turn_gate.h"

#include <utility>

namespace morvik::runtime {

void TurnGate::leave(kit::Block action) {
  {
    const std::lock_guard lock(mutex_);
    const auto turn = open_turns_.find(std::this_thread::get_id());
    if (turn != open_turns_.end()) {
      turn->second.held.push_back(std::move(action));
      return;
    }
  }
  action();
}

bool TurnGate::isInTurn() const {
  const std::lock_guard lock(mutex_);
  return open_turns_.count(std::this_thread::get_id()) != 0;
}

void TurnGate::begin() {
  const std::lock_guard lock(mutex_);
  ++open_turns_[std::this_thread::get_id()].depth;
}

void TurnGate::end() {
  std::vector<kit::Block> released;
  {
    const std::lock_guard lock(mutex_);
    const auto turn = open_turns_.find(std::this_thread::get_id());
    if (--turn->second.depth > 0)
      return;
    released = std::move(turn->second.held);
    open_turns_.erase(turn);
  }
  for (const kit::Block& action : released)
    action();
}

}  // namespace morvik::runtime
