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

/// One curl multi handle on one thread. add() and stop() come from any thread; everything else happens on its own.
class CurlLoop {
 public:
  explicit CurlLoop(CurlTransportOptions options);
  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;
  ~CurlLoop() { stop(); }

  /// Hands over a request; the first one starts the thread. After stop(), and in a forked child, it is dropped. Where
  /// the system gives no thread, no descriptors or no memory for it the request fails; the next one tries again.
  void add(kit::Request request, runtime::TransportHandler handler);
  /// Ends the thread and drops every request. No step of the thread waits for the network, so this takes no longer than
  /// the longest of them: reading the authorities' certificates, some ten milliseconds.
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
  /// Before curl is open. False when it is to stop.
  bool waitForArrivals();
  bool takeArrivals(std::vector<Arrival>& arrivals);
  void begin(Arrival arrival);
  void finishDone();
  /// Answers all that have come in with why nothing can be sent, outside the lock.
  void failArrivals(const std::string& reason);

  const CurlTransportOptions options_;
  const runtime::OwnProcess process_ = ownProcess();

  std::mutex mutex_;  // guards what follows
  std::vector<Arrival> arrivals_;
  bool stopping_ = false;
  CURLM* awake_ = nullptr;           ///< whom to wake for an arrival; null before curl is open
  std::condition_variable changed_;  ///< wakes the thread while curl is not open
  std::thread thread_;

  // The thread's own. In this order: exchanges go before the handle they are part of, that before the sessions.
  std::unique_ptr<CURLSH, ShareRelease> sessions_;
  std::unique_ptr<CURLM, MultiRelease> multi_;
  std::unordered_map<CURL*, Exchange> running_;
};

}  // namespace morvik::host
