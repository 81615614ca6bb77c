#include "host/net/curl_loop.h"

#include <csignal>
#include <string>
#include <utility>
#include <variant>

#include "host/posix/standard_streams.h"
#include "host/posix/thread.h"
#include "services/url_query.h"

namespace morvik::host {

using kit::Error;

namespace {

/// The thread wakes for arrivals, the network and curl's own timers; this is only the longest wait of one call.
constexpr int kWaitMilliseconds = 60 * 60 * 1000;

/// Writing to a closed connection must not reach the app as a signal: older versions of curl leave that to us, and
/// lookup threads inherit the mask.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// Once per process and never undone: other code of the app may use curl too.
bool initializeCurl() {
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  return code == CURLE_OK;
}

}  // namespace

CurlLoop::CurlLoop(CurlTransportOptions options) : options_(std::move(options)) {}

void CurlLoop::add(kit::Request request, runtime::TransportHandler handler) {
  if (!process_.isHere())
    return;
  std::optional<Error> no_thread;
  {
    const std::lock_guard lock(mutex_);
    if (stopping_)
      return;
    arrivals_.push_back({std::move(request), std::move(handler)});
    if (!thread_.joinable())
      no_thread = startThread();
    wakeLocked();
  }
  if (no_thread)
    failArrivals("no request can be sent: " + no_thread->message);
}

void CurlLoop::stop() {
  std::thread ended;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    wakeLocked();
    awake_ = nullptr;
    ended.swap(thread_);
  }
  if (ended.joinable())
    ended.join();
  for (const auto& [easy, exchange] : running_)
    curl_multi_remove_handle(multi_.get(), easy);
  running_.clear();
  arrivals_.clear();
  multi_.reset();
  sessions_.reset();
}

std::optional<Error> CurlLoop::startThread() {
  auto thread = host::startThread("morvik-net", [this] { run(); });
  if (auto* error = std::get_if<Error>(&thread))
    return std::move(*error);
  thread_ = std::get<std::thread>(std::move(thread));
  return std::nullopt;
}

void CurlLoop::wakeLocked() {
  if (awake_ != nullptr)
    curl_multi_wakeup(awake_);
  else
    changed_.notify_all();
}

void CurlLoop::run() {
  blockBrokenPipeSignal();
  while (!openCurl()) {
    failArrivals(
        "no request can be sent: curl could not be started; free some of the process's file descriptors or memory");
    if (!waitForArrivals())
      return;
  }
  std::vector<Arrival> arrivals;
  while (takeArrivals(arrivals)) {
    for (Arrival& arrival : arrivals)
      begin(std::move(arrival));
    perform();
    finishDone();
    curl_multi_poll(multi_.get(), nullptr, 0, kWaitMilliseconds, nullptr);
  }
}

/// Starts connections and lookups.
void CurlLoop::perform() {
  fillClosedStandardStreams();
  int still_running = 0;
  curl_multi_perform(multi_.get(), &still_running);
}

bool CurlLoop::openCurl() {
  fillClosedStandardStreams();
  if (!initializeCurl())
    return false;
  sessions_.reset(curl_share_init());
  multi_.reset(curl_multi_init());
  // Without descriptors curl creates it anyway, but nothing could ever end its wait.
  if (!sessions_ || !multi_ || curl_multi_wakeup(multi_.get()) != CURLM_OK)
    return false;
  // Only one thread uses the shared sessions, so they need no locks.
  curl_share_setopt(sessions_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  // The caller enforces this; curl's own limit makes it hold whatever happens to kept connections.
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(runtime::kMaxConnectionsPerHost));
  const std::lock_guard lock(mutex_);
  if (!stopping_)
    awake_ = multi_.get();
  return true;
}

bool CurlLoop::waitForArrivals() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return stopping_ || !arrivals_.empty(); });
  return !stopping_;
}

bool CurlLoop::takeArrivals(std::vector<Arrival>& arrivals) {
  arrivals.clear();
  const std::lock_guard lock(mutex_);
  arrivals.swap(arrivals_);
  return !stopping_;
}

void CurlLoop::begin(Arrival arrival) {
  const auto fail = [&arrival](std::string message) {
    arrival.handler({.response = std::nullopt, .error = Error{std::move(message)}});
  };
  if (auto error = unfitHead(arrival.request))
    return fail(std::move(error->message));
  auto target = RequestTarget::parse(arrival.request.url);
  if (const auto* error = std::get_if<Error>(&target)) {
    const std::string url(services::withoutQuery(arrival.request.url.c_str()));  // up to a zero byte, if any
    return fail("no request was sent to " + url + ": " + error->message);
  }
  auto exchange = std::make_unique<CurlExchange>(std::move(arrival.request), std::get<RequestTarget>(std::move(target)),
                                                 std::move(arrival.handler));
  CURL* easy = exchange->open(options_, sessions_.get());
  if (easy == nullptr || curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) {
    arrival.handler = exchange->takeHandler();
    return fail("no request can be sent: there is no memory for it");
  }
  running_.emplace(easy, std::move(exchange));
}

void CurlLoop::finishDone() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    CURL* easy = message->easy_handle;
    const CURLcode code = message->data.result;
    curl_multi_remove_handle(multi_.get(), easy);
    const Exchange exchange = std::move(running_.extract(easy).mapped());
    exchange->takeHandler()(exchange->outcome(code));
  }
}

void CurlLoop::failArrivals(const std::string& reason) {
  std::vector<Arrival> failed;
  {
    const std::lock_guard lock(mutex_);
    failed.swap(arrivals_);
  }
  for (Arrival& arrival : failed)
    arrival.handler({.response = std::nullopt, .error = Error{reason}});
}

}  // namespace morvik::host
