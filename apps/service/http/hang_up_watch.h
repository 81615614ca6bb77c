// Notices that the peer of a connection is gone while nothing is sent to it.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>

namespace morvik_service {

/// Any thread. One thread of its own waits for all sockets.
class HangUpWatch {
 public:
  /// As long as it lives, the end of the socket's peer requests the stop. Goes before the socket is closed.
  class Watched {
   public:
    Watched(HangUpWatch& watch, int socket, const std::stop_source& when_gone);
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched();

   private:
    HangUpWatch& watch_;
    const int socket_;
    std::uint64_t number_ = 0;
  };

  /// Throws SetupError when the system has no room for it.
  HangUpWatch();
  HangUpWatch(const HangUpWatch&) = delete;
  HangUpWatch& operator=(const HangUpWatch&) = delete;
  ~HangUpWatch();

 private:
  void run();
  void tell(std::uint64_t number);

  int events_ = -1;
  int end_ = -1;
  std::mutex mutex_;
  std::map<std::uint64_t, std::stop_source> watched_;  ///< guarded by mutex_, as next_number_
  std::uint64_t next_number_ = 1;                      ///< 0 is the end's
  std::thread thread_;
};

}  // namespace morvik_service
