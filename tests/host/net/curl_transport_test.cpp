#include "host/net/curl_transport.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/sending/exchange_queue.h"
#include "tests/host/net/loopback_server.h"
#include "tests/host/net/test_authority.h"
#include "tests/support/pumped_queue.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/threads_of_process.h"
#include "tests/support/transport_contract.h"

namespace morvik::test {
namespace {

using host::CurlTransport;
using host::CurlTransportOptions;
using runtime::ExchangeQueue;
using runtime::TurnGate;

const TestAuthority& authority() {
  static const TestAuthority one;
  return one;
}
const Identity& loopbackIdentity() {
  static const Identity one = authority().issue(kLoopbackNames);
  return one;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string gzipped(std::string_view plain) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(deflateBound(&stream, plain.size()) + 32, ' ');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

/// The network as in an instance: behind the queue.
std::unique_ptr<ExchangeQueue> transportOver(std::unique_ptr<CurlTransport> network, kit::MainQueue& main_queue,
                                             TurnGate& gate) {
  return std::make_unique<ExchangeQueue>(
      std::move(network),
      runtime::TransportParts{
          .ca_file = "", .main_queue = main_queue, .gate = gate, .is_forgotten = [] { return false; }});
}

// ---------------------------------------------------------------------------------------------------------- contract

class CurlRig {
 public:
  kit::Transport& transport() { return *transport_; }
  std::string url(const std::string& path) { return server_.url(path); }
  void answer(const std::string& path, int status, const std::string& body) {
    script(path, [status, body](Peer& peer) { peer.answer(status, body); });
  }
  void hangUp(const std::string& path) {
    script(path, [](Peer& peer) { peer.shut(); });
  }
  void keepSilent(const std::string& path) {
    script(path, [](Peer&) {});
  }
  size_t arrived(const std::string& path) {
    size_t count = 0;
    for (const ServedRequest& request : server_.requests())
      count += request.target == path ? 1u : 0u;
    return count;
  }
  void post(const std::function<void()>& block) {
    queue_.async([this, block] {
      const TurnGate::Turn turn(gate_);
      block();
      if (auto action = std::exchange(at_commit_, nullptr))
        action();
    });
  }
  void atCommit(std::function<void()> action) { at_commit_ = std::move(action); }
  bool isMainQueue() { return queue_.isCurrent(); }
  bool runUntil(const std::function<bool()>& done) { return queue_.runUntil(done); }

 private:
  void script(const std::string& path, std::function<void(Peer&)> act) {
    const std::lock_guard lock(mutex_);
    acts_[path] = std::move(act);
  }
  void respond(const ServedRequest& request, Peer& peer) {
    std::unique_lock lock(mutex_);
    const auto act = acts_.at(request.target);
    lock.unlock();
    act(peer);
  }

  std::mutex mutex_;
  std::map<std::string, std::function<void(Peer&)>> acts_;
  std::function<void()> at_commit_;
  LoopbackServer server_{{.identity = &loopbackIdentity()},
                         [this](const ServedRequest& request, Peer& peer) { respond(request, peer); }};
  PumpedQueue queue_;
  TurnGate gate_;
  std::unique_ptr<ExchangeQueue> transport_ = transportOver(
      std::make_unique<CurlTransport>(CurlTransportOptions{.ca_file = authority().file()}), queue_, gate_);
};

INSTANTIATE_TYPED_TEST_SUITE_P(CurlTransport, TransportContract, CurlRig);

// -------------------------------------------------------------------------------------------------------------- tests

class CurlTransportTest : public ::testing::Test {
 protected:
  static void answerOk(const ServedRequest&, Peer& peer) { peer.answer(200, "ok"); }

  /// Starts a server; request() goes to the latest one.
  LoopbackServer& serve(Responder responder, ServerOptions options = {.identity = &loopbackIdentity()}) {
    servers_.push_back(std::make_unique<LoopbackServer>(options, std::move(responder)));
    return *servers_.back();
  }
  ExchangeQueue& transport() {
    if (!transport_)
      transport_ =
          transportOver(std::make_unique<CurlTransport>(CurlTransportOptions{.ca_file = ca_file_}), queue_, gate_);
    return *transport_;
  }
  kit::Request request(const std::string& path = "/") { return requestTo(servers_.back()->url(path)); }
  static kit::Request requestTo(const std::string& url) {
    return {.method = "POST", .url = url, .body = "k=1", .timeout_seconds = 30};
  }
  void start(kit::Request request) {
    transport().start(std::move(request),
                      [this](kit::TransportOutcome outcome) { outcomes_.push_back(std::move(outcome)); });
  }
  void runUntilOutcomes(size_t count) {
    ASSERT_TRUE(queue_.runUntil([this, count] { return outcomes_.size() >= count; })) << "no outcome";
  }
  kit::TransportOutcome exchange(kit::Request request) {
    const size_t before = outcomes_.size();
    start(std::move(request));
    runUntilOutcomes(before + 1);
    return outcomes_.size() > before ? outcomes_.back() : kit::TransportOutcome{};
  }
  /// The error's message, or what came instead of an error.
  std::string errorOf(kit::Request request) {
    const auto outcome = exchange(std::move(request));
    EXPECT_FALSE(outcome.response);
    return outcome.error ? outcome.error->message : "no error";
  }
  std::string bodyOf(kit::Request request) {
    const auto outcome = exchange(std::move(request));
    EXPECT_FALSE(outcome.error) << outcome.error->message;
    return outcome.response ? outcome.response->body : "no answer";
  }

  PumpedQueue queue_;
  TurnGate gate_;
  std::string ca_file_ = authority().file();
  std::vector<kit::TransportOutcome> outcomes_;
  std::vector<std::unique_ptr<LoopbackServer>> servers_;
  std::unique_ptr<ExchangeQueue> transport_;
};

// What is kept.

constexpr int kNoAnswer = 1;
constexpr int kSecretsWereWritten = 2;

class CurlTransportSecrets : public CurlTransportTest {
 protected:
  /// One exchange over TLS while the environment names a file for its secrets. The exit status says what happened.
  [[noreturn]] void exchangeWithSecretsNamed() {
    const ScratchFolder folder;
    ::setenv("SSLKEYLOGFILE", (folder / "secrets").c_str(), 1);
    serve(answerOk);
    const bool was_answered = bodyOf(request()) == "ok";
    transport_.reset();
    const bool is_environment_left = std::getenv("SSLKEYLOGFILE") == folder / "secrets";
    std::fflush(nullptr);
    const bool is_kept = bytesOf(folder / "secrets").empty();
    std::filesystem::remove_all(folder.path());
    std::_Exit(!was_answered || !is_environment_left ? kNoAnswer : is_kept ? 0 : kSecretsWereWritten);
  }
};

TEST_F(CurlTransportSecrets, WritesItsSecretsToNoFileThatTheEnvironmentNames) {
  // The network library reads the environment once per process, so this takes a new one.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exchangeWithSecretsNamed(), ::testing::ExitedWithCode(0), "");
}

// What leaves.

TEST_F(CurlTransportTest, SendsTheHeadersAsTheyAreGivenAndNoOthers) {
  auto& server = serve(answerOk);
  auto request = this->request("/v1/tracking?a=b");
  request.headers = {{"Accept-Encoding", "application/json"}, {"Content-Type", "text/x; a=\"b\""}, {"X-Empty", ""}};
  exchange(request);
  const std::string port = server.url("").substr(server.url("").rfind(':'));
  EXPECT_EQ(server.requests().at(0).head, "POST /v1/tracking?a=b HTTP/1.1\r\nHost: 127.0.0.1" + port +
                                              "\r\nAccept-Encoding: application/json\r\n"
                                              "Content-Type: text/x; a=\"b\"\r\nX-Empty:\r\nContent-Length: 3\r\n");
  EXPECT_EQ(server.requests().at(0).body, "k=1");
}

TEST_F(CurlTransportTest, SendsEachMethod) {
  auto& server = serve(answerOk);
  for (const char* method : {"GET", "POST", "PUT", "DELETE"}) {
    auto request = this->request("/" + std::string(method));
    request.method = method;
    request.body = std::string(method) == "POST" ? "" : "body";
    EXPECT_EQ(bodyOf(request), "ok");
    EXPECT_EQ(server.requests().back().method, method);
    EXPECT_EQ(server.requests().back().body, request.body);
  }
  EXPECT_EQ(server.requests().at(1).header("Content-Length"), "0");
  auto plain_get = this->request("/get");
  plain_get.method = "GET";
  plain_get.body.clear();
  EXPECT_EQ(bodyOf(plain_get), "ok");
  EXPECT_EQ(server.requests().back().header("Content-Length"), std::nullopt);
}

TEST_F(CurlTransportTest, ReadsNoBodyForAHeadRequest) {
  serve([](const ServedRequest&, Peer& peer) { peer.write("HTTP/1.1 200 -\r\nContent-Length: 5\r\n\r\n"); });
  auto request = this->request();
  request.method = "HEAD";
  request.body.clear();
  EXPECT_EQ(bodyOf(request), "");
}

TEST_F(CurlTransportTest, SendsAHugeBodyAtOnceAndWhole) {
  auto& server = serve(answerOk);
  auto request = this->request();
  request.body = std::string(16 << 20, 'b');
  EXPECT_EQ(bodyOf(request), "ok");
  const ServedRequest served = server.requests().at(0);
  EXPECT_EQ(served.body, request.body);
  // A server that does not wait for 100-continue would cost a second.
  EXPECT_EQ(served.header("Expect"), std::nullopt);
}

TEST_F(CurlTransportTest, RefusesAHeadThatWouldSayMoreThanItself) {
  auto& server = serve(answerOk);
  const std::string refused = "no request was sent to " + server.url("/") + ": ";
  const auto refusal = [this](const std::string& name, const std::string& value) {
    auto request = this->request("/?secret=1");
    request.headers = {{name, value}};
    return errorOf(request);
  };
  const std::string line_break = "the value of its header \"X\" holds a line break or a zero byte";
  EXPECT_EQ(refusal("X", "a\r\nY: b"), refused + line_break);
  EXPECT_EQ(refusal("X", "a\nY: b"), refused + line_break);
  EXPECT_EQ(refusal("X", std::string("a\0b", 3)), refused + line_break);
  const std::string name = "a header's name is not made of letters, digits and hyphens";
  EXPECT_EQ(refusal("X: a\r\nY", "b"), refused + name);
  EXPECT_EQ(refusal("", "b"), refused + name);
  for (const char* own : {"content-length", "Transfer-Encoding", "Expect", "Connection"}) {
    EXPECT_EQ(refusal(own, "1"), refused + "its header \"" + own + "\" is the transport's own to set; leave it out");
  }
  auto request = this->request();
  request.method = "GET / HTTP/1.1\r\nX:";
  EXPECT_EQ(errorOf(request), refused + "its method is not made of letters");
  EXPECT_EQ(server.connections(), 0u);
}

TEST_F(CurlTransportTest, RefusesUrlsThatLeadNowhere) {
  EXPECT_EQ(errorOf(requestTo("")).find("no request was sent to : it cannot be read as a URL ("), 0u);
  EXPECT_EQ(errorOf(requestTo("no url?key=1")).find("no request was sent to no url: it cannot be read as a URL ("), 0u);
  EXPECT_EQ(errorOf(requestTo("https://a.example/\r\nX: y")).find("no request was sent to "), 0u);
  EXPECT_EQ(errorOf(requestTo(std::string("https://a.example/\0b", 20))),
            "no request was sent to https://a.example/: it holds a zero byte; leave that out");
  EXPECT_EQ(errorOf(requestTo("ftp://a.example/x")),
            "no request was sent to ftp://a.example/x: its scheme is \"ftp\"; begin it with https://");
  EXPECT_EQ(errorOf(requestTo("file:///etc/hostname")),
            "no request was sent to file:///etc/hostname: its scheme is \"file\"; begin it with https://");
}

TEST_F(CurlTransportTest, RefusesPlainHttpBeyondThisMachine) {
  for (const char* url : {"http://a.example/x", "http://192.0.2.1/x", "http://128.0.0.1/x", "http://[2001:db8::1]/x",
                          "http://localhost.example/x", "http://127.0.0.1.example/x", "http://127.0.0.1@a.example/x",
                          "http://[::ffff:192.0.2.1]/x", "HTTP://a.example/x"}) {
    EXPECT_EQ(errorOf(requestTo(url)),
              "no request was sent to " + std::string(url) + ": plain HTTP stays on this machine; use https");
  }
}

TEST_F(CurlTransportTest, RefusesPlainHttpBeyondThisMachineBeforeAnyConnectionIsMade) {
  // Not a loopback address, and yet the system connects it to whoever listens here, as TLS shows: a plain request, if
  // allowed, would arrive.
  const Identity anywhere = authority().issue("IP:0.0.0.0");
  const auto& over_tls = serve(answerOk, {.identity = &anywhere});
  EXPECT_EQ(bodyOf(requestTo(over_tls.urlAt("0.0.0.0", "/"))), "ok");
  EXPECT_EQ(over_tls.connections(), 1u);

  const auto& plain = serve(answerOk, {});
  for (const char* host : {"0.0.0.0", "0", "0x0.0", "[::ffff:127.0.0.1]"}) {
    const std::string url = plain.urlAt(host, "/x");
    EXPECT_EQ(errorOf(requestTo(url)),
              "no request was sent to " + url + ": plain HTTP stays on this machine; use https");
  }
  // A server takes connections in the order in which they were made: this is its first.
  EXPECT_EQ(bodyOf(request()), "ok");
  EXPECT_EQ(plain.connections(), 1u);
}

TEST_F(CurlTransportTest, SpeaksPlainHttpOnThisMachine) {
  auto& server = serve(answerOk, {});
  for (const char* host : {"127.0.0.1", "localhost", "LOCALHOST", "127.1"})
    EXPECT_EQ(bodyOf(requestTo(server.urlAt(host, "/"))), "ok") << host;
  // Nobody listens there, but it was tried.
  EXPECT_EQ(errorOf(requestTo(server.urlAt("[::1]", "/"))).find("could not connect to http://[::1]:"), 0u);
}

TEST_F(CurlTransportTest, IgnoresTheProxiesOfTheEnvironment) {
  serve(answerOk);
  setenv("https_proxy", "http://127.0.0.1:1", 1);
  setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
  EXPECT_EQ(bodyOf(request()), "ok");
  unsetenv("https_proxy");
  unsetenv("ALL_PROXY");
}

// Whom it trusts.

TEST_F(CurlTransportTest, RefusesACertificateOfAnotherAuthority) {
  const TestAuthority other;
  const Identity stranger = other.issue(kLoopbackNames);
  auto& server = serve(answerOk, {.identity = &stranger});
  EXPECT_EQ(errorOf(request("/x?secret=1")).find("could not trust the certificate of " + server.url("/x") + ": "), 0u);
  EXPECT_TRUE(server.requests().empty());
  // That authority is trusted where it is given.
  transport_.reset();
  ca_file_ = other.file();
  EXPECT_EQ(bodyOf(request()), "ok");
}

TEST_F(CurlTransportTest, RefusesASelfSignedCertificateUntilItIsGiven) {
  const Identity alone = selfSigned(kLoopbackNames);
  auto& server = serve(answerOk, {.identity = &alone});
  EXPECT_EQ(errorOf(request()).find("could not trust the certificate of " + server.url("/") + ": "), 0u);
  EXPECT_TRUE(server.requests().empty());
  transport_.reset();
  const ScratchFolder folder;
  ca_file_ = folder / "alone.pem";
  std::ofstream(ca_file_) << pemOf(*alone.certificate);
  EXPECT_EQ(bodyOf(request()), "ok");
}

TEST_F(CurlTransportTest, RefusesACertificateOfAnotherName) {
  const Identity elsewhere = authority().issue("DNS:other.example");
  auto& server = serve(answerOk, {.identity = &elsewhere});
  EXPECT_EQ(errorOf(request()).find("could not trust the certificate of " + server.url("/") + ": "), 0u);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CurlTransportTest, TakesACertificateForTheNameInItAndForNoOtherOfTheSameServer) {
  const Identity by_name = authority().issue("DNS:localhost");
  auto& server = serve(answerOk, {.identity = &by_name});
  EXPECT_EQ(errorOf(request()).find("could not trust the certificate of " + server.url("/") + ": "), 0u);
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(bodyOf(requestTo(server.urlAt("localhost", "/"))), "ok");
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(CurlTransportTest, RefusesACertificateThatIsOver) {
  const Identity over = authority().issue(kLoopbackNames, -60);
  auto& server = serve(answerOk, {.identity = &over});
  const std::string message = errorOf(request());
  EXPECT_EQ(message.find("could not trust the certificate of " + server.url("/") + ": "), 0u);
  EXPECT_NE(message.find("expired"), std::string::npos) << message;
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CurlTransportTest, SaysThatTheFileOfAuthoritiesCannotBeRead) {
  auto& server = serve(answerOk);
  ca_file_ = "/nowhere/ca.pem";
  const std::string message = errorOf(request());
  EXPECT_EQ(message.find("could not read the authorities to trust for " + server.url("/") + ": "), 0u) << message;
  EXPECT_NE(message.find("/nowhere/ca.pem"), std::string::npos) << message;
}

TEST_F(CurlTransportTest, ReadsTheFileOfAuthoritiesOnce) {
  const TestAuthority other;
  const Identity first = other.issue(kLoopbackNames);
  const Identity second = other.issue(kLoopbackNames);
  ca_file_ = other.file();
  serve(answerOk, {.identity = &first});
  EXPECT_EQ(bodyOf(request()), "ok");
  std::filesystem::remove(other.file());
  // Another server, without an earlier connection or session.
  serve(answerOk, {.identity = &second});
  EXPECT_EQ(bodyOf(request()), "ok");
}

TEST_F(CurlTransportTest, SpeaksNoTlsWithAServerThatSpeaksNone) {
  auto& plain = serve(answerOk, {.greeting = "this is no TLS\r\n"});
  const std::string url = "https" + plain.url("/").substr(4);
  EXPECT_EQ(errorOf(requestTo(url)).find("could not agree on TLS with " + url + ": "), 0u);
}

// Connections.

TEST_F(CurlTransportTest, KeepsTheConnection) {
  auto& server = serve(answerOk);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(bodyOf(request()), "ok");
  EXPECT_EQ(server.connections(), 1u);
}

TEST_F(CurlTransportTest, ResumesTheTlsSessionOnANewConnection) {
  auto& server = serve([](const ServedRequest&, Peer& peer) { peer.answer(200, "ok", "Connection: close\r\n"); });
  EXPECT_EQ(bodyOf(request()), "ok");
  EXPECT_EQ(bodyOf(request()), "ok");
  ASSERT_EQ(server.connections(), 2u);
  EXPECT_FALSE(server.requests().at(0).took_up_session);
  EXPECT_TRUE(server.requests().at(1).took_up_session);
}

TEST_F(CurlTransportTest, SpeaksHttp2WhereTheServerOffersIt) {
  auto& server = serve(answerOk, {.identity = &loopbackIdentity(), .http2 = true});
  auto request = this->request();
  request.body = std::string(3 << 20, 'b');
  EXPECT_EQ(bodyOf(request), "over HTTP/2");
  EXPECT_EQ(bodyOf(this->request()), "over HTTP/2");
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_TRUE(server.requests()[0].is_http2);
  EXPECT_EQ(server.requests()[0].body, request.body);
  EXPECT_EQ(server.connections(), 1u);
}

/// A server that answers nobody until told to.
class HeldServer {
 public:
  Responder responder() {
    return [this, release = release_](const ServedRequest& request, Peer& peer) {
      {
        const std::lock_guard lock(mutex_);
        if (++held_ == wanted_)
          reached_.set_value();
      }
      release.wait();
      peer.answer(200, request.target);
    };
  }
  /// Call once, before the requests start.
  std::future<void> whenHeld(size_t count) {
    const std::lock_guard lock(mutex_);
    wanted_ = count;
    return reached_.get_future();
  }
  void release() { promise_.set_value(); }

 private:
  std::mutex mutex_;
  size_t held_ = 0;
  size_t wanted_ = 0;
  std::promise<void> reached_;
  std::promise<void> promise_;
  std::shared_future<void> release_ = promise_.get_future().share();
};

TEST_F(CurlTransportTest, MakesSixConnectionsToAHostAndLetsTheRestWaitInOrder) {
  HeldServer held;
  auto& server = serve(held.responder());
  auto reached = held.whenHeld(runtime::kMaxConnectionsPerHost);
  for (int i = 0; i < 20; ++i)
    start(request("/" + std::to_string(i)));
  reached.wait();
  EXPECT_EQ(server.requests().size(), 6u);
  EXPECT_EQ(transport().inFlight(), 20u);
  held.release();
  runUntilOutcomes(20);
  EXPECT_EQ(server.mostConnectionsAtOnce(), 6u);
  EXPECT_EQ(server.connections(), 6u);
  EXPECT_EQ(transport().inFlight(), 0u);
  // The first six were sent before any other.
  std::set<std::string> first;
  for (size_t i = 0; i < 6; ++i)
    first.insert(server.requests()[i].target);
  EXPECT_EQ(first, (std::set<std::string>{"/0", "/1", "/2", "/3", "/4", "/5"}));
}

TEST_F(CurlTransportTest, AFullHostHoldsNoOtherUp) {
  HeldServer held;
  serve(held.responder());
  auto reached = held.whenHeld(runtime::kMaxConnectionsPerHost);
  for (int i = 0; i < 7; ++i)
    start(request());
  reached.wait();
  serve(answerOk);
  EXPECT_EQ(bodyOf(request()), "ok");
  EXPECT_EQ(outcomes_.size(), 1u);
  held.release();
  runUntilOutcomes(8);
}

TEST_F(CurlTransportTest, HeldLetsRequestsWaitWithTheirWholeTimeAndTheErasureGo) {
  auto& server = serve(answerOk);
  transport().setHeld(true);
  for (int i = 0; i < 8; ++i) {
    auto waiting = request("/" + std::to_string(i));
    waiting.timeout_seconds = 5;
    start(waiting);
  }
  auto erasure = request("/erasure");
  erasure.when_held = kit::WhenHeld::kPasses;
  start(erasure);
  runUntilOutcomes(1);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].target, "/erasure");
  EXPECT_EQ(transport().inFlight(), 8u);
  transport().setHeld(false);
  runUntilOutcomes(9);
  EXPECT_EQ(server.requests().size(), 9u);
  for (const auto& outcome : outcomes_)
    EXPECT_TRUE(outcome.response) << outcome.error->message;
}

TEST_F(CurlTransportTest, HeldLetsWhatRunsGoOnAndWhatIsQueuedBehindItWait) {
  HeldServer held;
  auto& server = serve(held.responder());
  auto reached = held.whenHeld(runtime::kMaxConnectionsPerHost);
  for (int i = 0; i < 10; ++i)
    start(request("/" + std::to_string(i)));
  reached.wait();
  transport().setHeld(true);
  held.release();
  runUntilOutcomes(6);
  EXPECT_EQ(transport().inFlight(), 4u);
  EXPECT_EQ(server.requests().size(), 6u);
  transport().setHeld(false);
  runUntilOutcomes(10);
}

TEST_F(CurlTransportTest, CountsATimeOutFromWhenTheRequestLeavesTheQueue) {
  auto& server = serve([](const ServedRequest&, Peer&) {}, {});
  const auto begun = std::chrono::steady_clock::now();
  for (int i = 0; i < 7; ++i) {
    auto silent = request("/" + std::to_string(i));
    silent.timeout_seconds = 0.2;
    start(silent);
  }
  runUntilOutcomes(7);
  EXPECT_GE(secondsSince(begun), 0.4);
  EXPECT_EQ(outcomes_.back().error.value().message.find("no complete answer in time from " + server.url("/6") + ": "),
            0u);
  EXPECT_TRUE(outcomes_.back().error->is_timeout);
}

TEST_F(CurlTransportTest, BoundsTheWholeExchangeByTheTimeOut) {
  std::promise<void> over;
  auto is_over = over.get_future().share();
  auto& server = serve([is_over](const ServedRequest&, Peer& peer) {
    // One byte at a time: there is always progress, and never an end.
    peer.write("HTTP/1.1 200 -\r\nContent-Length: 100000\r\n\r\n");
    while (peer.write("x") && is_over.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
    }
    peer.shut();
  });
  auto request = this->request();
  request.timeout_seconds = 0.1;
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOf(request).find("no complete answer in time from " + server.url("/") + ": "), 0u);
  EXPECT_GE(secondsSince(begun), 0.1);
  over.set_value();
}

TEST_F(CurlTransportTest, TakesTimeOutsThatMakeNoSenseForTheDefaultOrTheLongest) {
  serve(answerOk);
  for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(),
                               std::numeric_limits<double>::infinity(), 1e300, host::kMaxTimeoutSeconds + 1}) {
    auto request = this->request();
    request.timeout_seconds = seconds;
    EXPECT_EQ(bodyOf(request), "ok") << seconds;
  }
}

// What is returned.

TEST_F(CurlTransportTest, FollowsNoRedirect) {
  auto& elsewhere = serve(answerOk);
  auto& server = serve([&elsewhere](const ServedRequest&, Peer& peer) {
    peer.answer(302, "moved", "Location: " + elsewhere.url("/") + "\r\n");
  });
  const auto outcome = exchange(request());
  EXPECT_EQ(outcome.response.value().status_code, 302);
  EXPECT_EQ(outcome.response.value().body, "moved");
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(elsewhere.connections(), 0u);
}

TEST_F(CurlTransportTest, DecodesGzipWhateverTheRequestAsksFor) {
  const std::string plain(100'000, 'p');
  auto& server = serve(
      [&plain](const ServedRequest&, Peer& peer) { peer.answer(200, gzipped(plain), "Content-Encoding: GZip\r\n"); });
  for (const char* asked : {"gzip", "application/json", "identity"}) {
    auto request = this->request();
    request.headers = {{"Accept-Encoding", asked}};
    EXPECT_EQ(bodyOf(request), plain);
    EXPECT_EQ(server.requests().back().header("Accept-Encoding"), asked);
  }
  EXPECT_EQ(bodyOf(request()), plain);
  EXPECT_EQ(server.requests().back().header("Accept-Encoding"), std::nullopt);
}

TEST_F(CurlTransportTest, RefusesABodyThatCannotBeDecoded) {
  std::string body;
  std::string encoding = "gzip";
  auto& server = serve(
      [&](const ServedRequest&, Peer& peer) { peer.answer(502, body, "Content-Encoding: " + encoding + "\r\n"); });
  const auto refusal = [&] {
    const auto outcome = exchange(request("/x?secret=1"));
    EXPECT_EQ(outcome.response.value().status_code, 502);
    EXPECT_EQ(outcome.response.value().body, "");
    return outcome.error ? outcome.error->message : "no error";
  };
  const std::string refused = "the answer of " + server.url("/x") + " was refused: ";
  body = "no gzip";
  EXPECT_EQ(refusal(), refused + "the deflated data is damaged: incorrect header check");
  body = gzipped("a text of some length").substr(0, 25);
  EXPECT_EQ(refusal(), refused + "the deflated data ends too early");
  encoding = "br";
  EXPECT_EQ(refusal(), refused + "its encoding \"br\" is not known here");
}

TEST_F(CurlTransportTest, StopsReadingAGzipBomb) {
  const std::string bomb = gzipped(std::string(32 << 20, '\0'));
  auto& server =
      serve([&bomb](const ServedRequest&, Peer& peer) { peer.answer(200, bomb, "Content-Encoding: gzip\r\n"); });
  const auto outcome = exchange(request());
  EXPECT_EQ(outcome.response.value().body, "");
  EXPECT_EQ(outcome.error.value().message,
            "the answer of " + server.url("/") + " was refused: it has more than 4194304 bytes");
}

TEST_F(CurlTransportTest, SaysThatTheConnectionEndedInTheMiddleOfTheBody) {
  auto& server = serve([](const ServedRequest&, Peer& peer) {
    peer.write("HTTP/1.1 200 -\r\nContent-Length: 100\r\n\r\nhalf");
    peer.shut();
  });
  EXPECT_EQ(errorOf(request()).find("no complete answer from " + server.url("/") + ": "), 0u);
}

TEST_F(CurlTransportTest, SaysThatGarbageIsNoAnswer) {
  auto& server = serve([](const ServedRequest&, Peer& peer) {
    peer.write("\x01\x02garbage instead of HTTP\r\n\r\n");
    peer.shut();
  });
  EXPECT_EQ(errorOf(request()).find("no HTTP answer from " + server.url("/") + ": "), 0u);
}

TEST_F(CurlTransportTest, BoundsTheHeadOfAnAnswer) {
  auto& server = serve([](const ServedRequest&, Peer& peer) {
    peer.write("HTTP/1.1 200 -\r\n");
    while (peer.write("X-More: and more and more and more and more and more and more and more\r\n")) {
    }
  });
  EXPECT_EQ(errorOf(request()), "no complete answer from " + server.url("/") + ": its head has more than 262144 bytes");
}

TEST_F(CurlTransportTest, SaysThatNobodyListens) {
  std::string url;
  {
    const LoopbackServer gone({.identity = &loopbackIdentity()}, answerOk);
    url = gone.url("/x");
  }
  EXPECT_EQ(errorOf(requestTo(url + "?secret=1")).find("could not connect to " + url + ": "), 0u);
}

TEST_F(CurlTransportTest, SaysThatAHostCannotBeFound) {
  EXPECT_EQ(
      errorOf(requestTo("https://nobody.invalid/x")).find("could not find the host of https://nobody.invalid:443/x: "),
      0u);
}

// A request is sent once: the server may have acted on it although its answer was lost.
TEST_F(CurlTransportTest, SendsNoRequestASecondTimeWhenAKeptConnectionDies) {
  for (const char* body : {"k=1", ""}) {
    auto& server = serve([](const ServedRequest& request, Peer& peer) {
      if (request.target == "/dies")
        peer.shut();
      else
        peer.answer(200, "ok");
    });
    EXPECT_EQ(bodyOf(request("/")), "ok");
    auto dying = request("/dies");
    dying.body = body;
    EXPECT_EQ(errorOf(dying), "no complete answer from " + server.url("/dies") +
                                  ": the connection was lost after the request had been sent");
    EXPECT_EQ(server.requests().size(), 2u);
  }
}

TEST_F(CurlTransportTest, AsksASecondTimeWhereAskingChangesNothing) {
  std::atomic<bool> died{false};
  auto& server = serve([&died](const ServedRequest& request, Peer& peer) {
    if (request.target == "/dies" && !died.exchange(true))
      peer.shut();
    else
      peer.answer(200, "ok");
  });
  EXPECT_EQ(bodyOf(request("/")), "ok");
  auto get = request("/dies");
  get.method = "GET";
  get.body.clear();
  EXPECT_EQ(bodyOf(get), "ok");
  EXPECT_EQ(server.requests().size(), 3u);
}

/// Returns true this many times, then false.
std::function<bool()> leavesTimes(int times) {
  return [left = std::make_shared<std::atomic<int>>(times)] { return (*left)-- > 0; };
}

class BareCurlTransportTest : public CurlTransportTest {
 protected:
  kit::TransportOutcome exchangeWith(kit::Request request) {
    std::promise<kit::TransportOutcome> ended;
    network_->begin(std::move(request),
                    [&ended](kit::TransportOutcome outcome) { ended.set_value(std::move(outcome)); });
    return ended.get_future().get();
  }
  std::unique_ptr<CurlTransport> network_ = std::make_unique<CurlTransport>(CurlTransportOptions{.ca_file = ca_file_});
};

TEST_F(BareCurlTransportTest, SendsNothingOfARequestThatMayNotLeaveAnyMoreWhenItsConnectionHasComeAbout) {
  auto& server = serve(answerOk);
  auto stopped = request();
  stopped.may_leave = leavesTimes(0);
  EXPECT_TRUE(exchangeWith(stopped).isNotSent());
  auto leaving = request("/leaves");
  leaving.may_leave = leavesTimes(1);
  EXPECT_EQ(exchangeWith(leaving).response->body, "ok");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].target, "/leaves");
}

TEST_F(BareCurlTransportTest, AsksNotASecondTimeWhatMayNotLeaveAnyMore) {
  auto& server = serve([](const ServedRequest& request, Peer& peer) {
    if (request.target == "/dies")
      peer.shut();
    else
      peer.answer(200, "ok");
  });
  EXPECT_EQ(exchangeWith(request("/")).response->body, "ok");
  auto get = request("/dies");
  get.method = "GET";
  get.body.clear();
  get.may_leave = leavesTimes(1);
  const auto outcome = exchangeWith(get);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->message, "no complete answer from " + server.url("/dies") +
                                        ": the connection was lost after the request had been sent");
  EXPECT_EQ(server.requests().size(), 2u);
}

TEST_F(CurlTransportTest, OutlivesConnectionsThatAreResetWhileItSends) {
  auto& server = serve([](const ServedRequest&, Peer&) { FAIL() << "the body never arrives whole"; });
  // The server goes away in the middle of a body; writing on must not end the process with a signal.
  auto huge = request();
  huge.body = std::string(64 << 20, 'b');
  // If the other end goes away with a closed window, the system may tell nobody: then the time-out ends the exchange.
  huge.timeout_seconds = 5;
  start(huge);
  while (server.connections() == 0)
    std::this_thread::yield();
  servers_.clear();
  runUntilOutcomes(1);
  ASSERT_FALSE(outcomes_.empty());
  EXPECT_TRUE(outcomes_.back().error);
}

// Beginning and end.

TEST_F(CurlTransportTest, StartsItsThreadWithTheFirstRequest) {
  serve(answerOk);
  const size_t before = test::threadsOfThisProcess();
  transport();
  EXPECT_EQ(test::threadsOfThisProcess(), before);
  {
    const TurnGate::Turn turn(gate_);
    start(request());
    EXPECT_EQ(test::threadsOfThisProcess(), before);
  }
  EXPECT_GT(test::threadsOfThisProcess(), before);
  runUntilOutcomes(1);
}

TEST_F(CurlTransportTest, HoldsARequestUntilItsTurnHasEnded) {
  auto& server = serve(answerOk);
  {
    const TurnGate::Turn turn(gate_);
    start(request());
    EXPECT_EQ(transport().inFlight(), 1u);
    EXPECT_EQ(server.connections(), 0u);
  }
  runUntilOutcomes(1);
  EXPECT_EQ(transport().inFlight(), 0u);
}

TEST_F(CurlTransportTest, CountsARequestUntilItsHandlerBegins) {
  serve(answerOk);
  start(request());
  EXPECT_EQ(transport().inFlight(), 1u);
  while (queue_.waiting() == 0)
    std::this_thread::yield();
  EXPECT_EQ(transport().inFlight(), 1u);
  runUntilOutcomes(1);
  EXPECT_EQ(transport().inFlight(), 0u);
}

TEST_F(CurlTransportTest, ShutsDownWithRequestsInFlight) {
  HeldServer held;
  serve(held.responder());
  auto reached = held.whenHeld(runtime::kMaxConnectionsPerHost);
  for (int i = 0; i < 10; ++i)
    start(request());
  reached.wait();
  const auto begun = std::chrono::steady_clock::now();
  transport().shutdown();
  EXPECT_LT(secondsSince(begun), runtime::kShutdownSeconds);
  EXPECT_EQ(transport().inFlight(), 0u);
  held.release();
  transport().shutdown();
  start(request());
  queue_.runAll();
  EXPECT_TRUE(outcomes_.empty());
  EXPECT_EQ(servers_.back()->requests().size(), 6u);
}

TEST_F(CurlTransportTest, ShutsDownWithAnAnswerInTheMainQueue) {
  serve(answerOk);
  start(request());
  while (queue_.waiting() == 0)
    std::this_thread::yield();
  transport().shutdown();
  queue_.runAll();
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(CurlTransportTest, ShutsDownWithARequestThatItsTurnHoldsBack) {
  auto& server = serve(answerOk);
  {
    const TurnGate::Turn turn(gate_);
    start(request());
    transport_.reset();
  }
  queue_.runAll();
  EXPECT_TRUE(outcomes_.empty());
  EXPECT_EQ(server.connections(), 0u);
}

TEST_F(CurlTransportTest, ShutsDownWithoutEverHavingBegun) {
  transport().shutdown();
  EXPECT_EQ(transport().inFlight(), 0u);
}

TEST_F(CurlTransportTest, ShutsDownWhileOthersStartRequests) {
  serve(answerOk);
  std::promise<void> go;
  auto gone = go.get_future().share();
  std::vector<std::thread> threads;
  transport();
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([this, gone] {
      gone.wait();
      for (int i = 0; i < 50; ++i)
        transport_->start(request(), [](const kit::TransportOutcome&) { FAIL() << "nobody runs the main queue"; });
    });
  }
  go.set_value();
  transport_->shutdown();
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(transport_->inFlight(), 0u);
  queue_.runAll();
}

}  // namespace
}  // namespace morvik::test
