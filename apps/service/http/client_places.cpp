#include "apps/service/http/client_places.h"

#include <utility>

namespace morvik_service {

ClientPlaces::Place::Place(ClientPlaces& places, std::string client) : places_(places), client_(std::move(client)) {
  const std::lock_guard lock(places_.mutex_);
  ++places_.held_[client_];
}

ClientPlaces::Place::~Place() {
  const std::lock_guard lock(places_.mutex_);
  const auto held = places_.held_.find(client_);
  if (--held->second == 0)
    places_.held_.erase(held);
}

bool ClientPlaces::hasRoomFor(const std::string& client) const {
  const std::lock_guard lock(mutex_);
  const auto held = held_.find(client);
  return held == held_.end() || held->second < most_of_a_client_;
}

}  // namespace morvik_service
