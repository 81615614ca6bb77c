// The thread that talks to the network.
#pragma once

#include <curl/curl.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/net/curl_exchange.h"
#include "host/net/curl_transport.h"
#include "host/posix/process_word.h"
#include "kit/transport.h"

namespace morvik::host {

/// One curl multi handle on one thread. add() and stop() are called from any thread; all else runs on that thread.
class CurlLoop {
 public:
  explicit CurlLoop(CurlTransportOptions options);
  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;
  ~CurlLoop() { stop(); }

  /// Hands over a request; the first one starts the thread. Dropped after stop() and in a forked child. If the system
  /// has no thread, descriptors or memory for it, the request fails; the next one tries again.
  void add(kit::Request request, runtime::TransportHandler handler);
  /// Ends the thread and drops every request. No step of the thread waits for the network, so this takes at most as
  /// long as the longest step: reading the authorities' certificates, some ten milliseconds.
  void stop();

 private:
  struct Arrival {
    kit::Request request;
    runtime::TransportHandler handler;
  };
  struct MultiRelease {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };
  struct ShareRelease {
    void operator()(CURLSH* share) const { curl_share_cleanup(share); }
  };
  using Exchange = std::unique_ptr<CurlExchange>;

  std::optional<kit::Error> startThread();
  void wakeLocked();
  void run();
  bool openCurl();
  void perform();
  /// Before curl is open. False: the thread must stop.
  bool waitForArrivals();
  bool takeArrivals(std::vector<Arrival>& arrivals);
  void begin(Arrival arrival);
  void finishDone();
  /// Fails all arrived requests with `reason`, outside of the lock.
  void failArrivals(const std::string& reason);

  const CurlTransportOptions options_;
  const runtime::OwnProcess process_ = ownProcess();

  std::mutex mutex_;  // guards what follows
  std::vector<Arrival> arrivals_;
  bool stopping_ = false;
  CURLM* awake_ = nullptr;           ///< to be woken for an arrival; null before curl is open
  std::condition_variable changed_;  ///< wakes the thread while curl is not open
  std::thread thread_;

  // Used by the thread only. In this order: exchanges go before the handle that they belong to, and that before the
  // sessions.
  std::unique_ptr<CURLSH, ShareRelease> sessions_;
  std::unique_ptr<CURLM, MultiRelease> multi_;
  std::unordered_map<CURL*, Exchange> running_;
};

}  // namespace morvik::host
