#include "host/net/curl_loop.h"

#include <csignal>
#include <string>
#include <utility>
#include <variant>

#include "host/loop/thread.h"

namespace morvik::host {

using kit::Error;

namespace {

/// The thread wakes for arrivals, for the network and for curl's own timers; this is only the longest wait of a call.
constexpr int kWaitMilliseconds = 60 * 60 * 1000;

/// A write to a connection that has gone must not reach the app as a signal: older versions of curl leave that to us,
/// and look-up threads inherit it.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// Once in a process and never undone: other code of the app may use curl as well.
bool initializeCurl() {
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  return code == CURLE_OK;
}

}  // namespace

CurlLoop::CurlLoop(CurlTransportOptions options, std::shared_ptr<HandlerDelivery> delivery)
    : options_(std::move(options)), delivery_(std::move(delivery)) {}

void CurlLoop::add(kit::Request request, TransportHandler handler) {
  if (!process_.isHere())
    return;
  const std::lock_guard lock(mutex_);
  if (stopping_)
    return;
  arrivals_.push_back({std::move(request), std::move(handler)});
  if (unavailable_)
    failArrivals();
  else if (!thread_.joinable())
    startThread();
  else if (awake_ != nullptr)
    curl_multi_wakeup(awake_);
}

void CurlLoop::setHeld(bool held) {
  const std::lock_guard lock(mutex_);
  held_ = held;
  if (awake_ != nullptr)
    curl_multi_wakeup(awake_);
}

void CurlLoop::refuseWaiting(const Error& error) {
  const std::lock_guard lock(mutex_);
  if (!thread_.joinable())
    return;
  refusal_ = error;
  if (awake_ != nullptr)
    curl_multi_wakeup(awake_);
}

void CurlLoop::stop() {
  std::thread ended;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    if (awake_ != nullptr)
      curl_multi_wakeup(std::exchange(awake_, nullptr));
    ended.swap(thread_);
  }
  if (ended.joinable())
    ended.join();
  for (const auto& [easy, exchange] : running_)
    curl_multi_remove_handle(multi_.get(), easy);
  running_.clear();
  queues_.clear();
  arrivals_.clear();
  multi_.reset();
  sessions_.reset();
}

void CurlLoop::startThread() {
  auto thread = host::startThread("morvik-net", [this] { run(); });
  if (auto* started = std::get_if<std::thread>(&thread)) {
    thread_ = std::move(*started);
    return;
  }
  unavailable_ = Error{"no request can be sent: " + std::get<Error>(thread).message};
  failArrivals();
}

void CurlLoop::run() {
  blockBrokenPipeSignal();
  if (!openCurl()) {
    const std::lock_guard lock(mutex_);
    unavailable_ = Error{"no request can be sent: curl could not be started"};
    failArrivals();
    return;
  }
  std::vector<Arrival> arrivals;
  while (takeArrivals(arrivals)) {
    for (Arrival& arrival : arrivals)
      enqueue(std::move(arrival));
    failRefused();
    int still_running = 0;
    curl_multi_perform(multi_.get(), &still_running);
    finishDone();
    beginReady();  // a new one makes curl's own timer due, so that the wait below ends at once
    curl_multi_poll(multi_.get(), nullptr, 0, kWaitMilliseconds, nullptr);
  }
}

bool CurlLoop::openCurl() {
  if (!initializeCurl())
    return false;
  sessions_.reset(curl_share_init());
  multi_.reset(curl_multi_init());
  if (!sessions_ || !multi_)
    return false;
  // One thread alone uses the shared sessions, so they need no locks.
  curl_share_setopt(sessions_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  // The queues see to this; curl's own limit makes it hold whatever becomes of connections that were kept.
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kMaxConnectionsPerHost));
  const std::lock_guard lock(mutex_);
  if (!stopping_)
    awake_ = multi_.get();
  return true;
}

bool CurlLoop::takeArrivals(std::vector<Arrival>& arrivals) {
  arrivals.clear();
  const std::lock_guard lock(mutex_);
  arrivals.swap(arrivals_);
  return !stopping_;
}

void CurlLoop::enqueue(Arrival arrival) {
  if (auto error = unfitHead(arrival.request))
    return fail(std::move(arrival.handler), std::move(*error));
  auto target = RequestTarget::parse(arrival.request.url);
  if (const auto* error = std::get_if<Error>(&target)) {
    const std::string url(withoutQuery(arrival.request.url.c_str()));  // up to a zero byte, if it holds one
    return fail(std::move(arrival.handler), Error{"no request was sent to " + url + ": " + error->message});
  }
  const bool passes_hold = arrival.request.passes_hold;
  auto exchange = std::make_unique<CurlExchange>(std::move(arrival.request), std::get<RequestTarget>(std::move(target)),
                                                 std::move(arrival.handler));
  const std::string host = exchange->host();
  queues_.add(host, std::move(exchange), passes_hold);
}

void CurlLoop::beginReady() {
  while (std::optional<Exchange> exchange = takeReady())
    begin(std::move(*exchange));
}

/// What is taken before a hold counts as begun.
std::optional<CurlLoop::Exchange> CurlLoop::takeReady() {
  const std::lock_guard lock(mutex_);
  // What is to be refused is not begun meanwhile.
  return queues_.takeReady(held_ || refusal_.has_value());
}

void CurlLoop::failRefused() {
  std::optional<Error> refusal;
  {
    const std::lock_guard lock(mutex_);
    refusal.swap(refusal_);
  }
  if (!refusal)
    return;
  for (const Exchange& exchange : queues_.takeWaiting())
    fail(exchange->takeHandler(), *refusal);
}

void CurlLoop::begin(Exchange exchange) {
  CURL* easy = exchange->open(options_, sessions_.get());
  if (easy == nullptr || curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) {
    queues_.ended(exchange->host());
    return fail(exchange->takeHandler(), Error{"no request can be sent: there is no memory for it"});
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
    queues_.ended(exchange->host());
    delivery_->deliver(exchange->takeHandler(), exchange->outcome(code));
  }
}

void CurlLoop::fail(TransportHandler handler, Error error) {
  delivery_->deliver(std::move(handler), {.response = std::nullopt, .error = std::move(error)});
}

void CurlLoop::failArrivals() {
  for (Arrival& arrival : std::exchange(arrivals_, {}))
    fail(std::move(arrival.handler), *unavailable_);
}

}  // namespace morvik::host
