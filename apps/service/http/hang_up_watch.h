// Notices when the peer of a connection closes it while nothing is being sent.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>

namespace morvik_service {

/// Any thread. One thread watches all sockets.
class HangUpWatch {
 public:
  /// During its lifetime, the end of the socket's peer requests the stop. Destroyed before the socket is closed.
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

  /// Throws SetupError if the system lacks the resources for it.
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
  std::uint64_t next_number_ = 1;                      ///< 0 is kEndNumber
  std::thread thread_;
};

}  // namespace morvik_service
