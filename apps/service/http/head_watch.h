// Ends connections whose requests do not get beyond their head.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>

namespace morvik_service {

/// Any thread. One thread of its own waits for the bound of all.
class HeadWatch {
 public:
  /// One connection. Its socket is shut down, not closed, when a head is awaited for longer than the bound. Goes before
  /// the socket is closed.
  class Watched {
   public:
    /// The first head is awaited from here on.
    Watched(HeadWatch& watch, int socket);
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched();

    /// The whole head is there: its request may take as long as it takes.
    void arrived();
    /// The request is over: the next head is awaited from here on.
    void awaitNext();

   private:
    HeadWatch& watch_;
    const int socket_;
  };

  explicit HeadWatch(std::chrono::seconds bound);

 private:
  void run(const std::stop_token& stop);
  /// Shuts down what is awaited for too long; the time of the next that will be, which there must be.
  std::chrono::steady_clock::time_point shutLate();

  const std::chrono::seconds bound_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::map<int, std::chrono::steady_clock::time_point> awaited_;  ///< socket and its bound; guarded by mutex_
  std::jthread thread_;                                           ///< last: it ends before what it uses
};

}  // namespace morvik_service
