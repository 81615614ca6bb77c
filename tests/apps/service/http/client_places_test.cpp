#include "apps/service/http/client_places.h"

#include <gtest/gtest.h>

#include <optional>

namespace morvik_service {
namespace {

TEST(ClientPlaces, AClientHoldsNoMoreThanItMay) {
  ClientPlaces places(2);
  EXPECT_TRUE(places.hasRoomFor("one"));
  const ClientPlaces::Place first(places, "one");
  EXPECT_TRUE(places.hasRoomFor("one"));
  const ClientPlaces::Place second(places, "one");
  EXPECT_FALSE(places.hasRoomFor("one"));
  EXPECT_TRUE(places.hasRoomFor("other"));
}

TEST(ClientPlaces, APlaceThatWasLeftIsFreeAgain) {
  ClientPlaces places(1);
  std::optional<ClientPlaces::Place> place;
  for (int i = 0; i < 3; ++i) {
    place.emplace(places, "one");
    EXPECT_FALSE(places.hasRoomFor("one"));
    place.reset();
    EXPECT_TRUE(places.hasRoomFor("one"));
  }
}

}  // namespace
}  // namespace morvik_service
