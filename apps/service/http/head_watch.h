// Ends connections on which no complete request head arrives.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>

namespace morvik_service {

/// Any thread. One thread watches the deadlines of all connections.
class HeadWatch {
 public:
  /// One connection. Its socket is shut down, not closed, when a head takes longer than the bound. Destroyed before the
  /// socket is closed.
  class Watched {
   public:
    /// Starts to wait for the first head.
    Watched(HeadWatch& watch, int socket);
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched();

    /// The head is complete: its request may take any time.
    void arrived();
    /// The request is over: starts to wait for the next head.
    void awaitNext();

   private:
    HeadWatch& watch_;
    const int socket_;
  };

  explicit HeadWatch(std::chrono::seconds bound);

 private:
  void run(const std::stop_token& stop);
  /// Shuts down the overdue ones. Returns the next deadline; there must be one.
  std::chrono::steady_clock::time_point shutLate();

  const std::chrono::seconds bound_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::map<int, std::chrono::steady_clock::time_point> awaited_;  ///< socket and its deadline; guarded by mutex_
  std::jthread thread_;                                           ///< last: destroyed before what it uses
};

}  // namespace morvik_service
