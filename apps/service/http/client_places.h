// How many connections each client holds.
#pragma once

#include <map>
#include <mutex>
#include <string>

namespace morvik_service {

/// Any thread. Never blocks for long.
class ClientPlaces {
 public:
  /// One connection of a client, for the object's lifetime.
  class Place {
   public:
    Place(ClientPlaces& places, std::string client);
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place();

   private:
    ClientPlaces& places_;
    const std::string client_;
  };

  explicit ClientPlaces(unsigned most_of_a_client) : most_of_a_client_(most_of_a_client) {}

  /// True if the client may hold one more. Does not take it; a Place does.
  bool hasRoomFor(const std::string& client) const;

 private:
  const unsigned most_of_a_client_;
  mutable std::mutex mutex_;
  std::map<std::string, unsigned> held_;  ///< guarded by mutex_; no client without a connection
};

}  // namespace morvik_service
