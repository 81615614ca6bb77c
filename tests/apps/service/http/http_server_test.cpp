#include "apps/service/http/http_server.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "apps/service/base/files.h"
#include "apps/service/base/refusal.h"
#include "apps/service/http/certificate.h"
#include "tests/apps/service/https_client.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::Answer;
using test::HttpsClient;
using test::TemporaryFolder;

class HttpServerTest : public testing::Test {
 protected:
  // Serves until the end of the test, or until `server_` is reset.
  void serve(HttpServer::Handler handler, const ServerLimits& limits = {}) {
    Listener listener("127.0.0.1", 0);
    url_ = "https://127.0.0.1:" + std::to_string(listener.port());
    server_ = std::make_unique<HttpServer>(listener, identity_, std::move(handler), limits);
  }
  HttpsClient client() const { return {url_, files_.authority}; }
  // This many open connections from one address of this machine.
  std::vector<std::unique_ptr<HttpsClient>> connectionsFrom(const std::string& address, unsigned count) const {
    std::vector<std::unique_ptr<HttpsClient>> kept;
    for (unsigned i = 0; i < count; ++i) {
      kept.push_back(std::make_unique<HttpsClient>(url_, files_.authority, address));
      EXPECT_EQ(200, kept.back()->get("/").status) << address << " " << i;
    }
    return kept;
  }

  TemporaryFolder folder_;
  CertificateFiles files_ = makeCertificates(folder_.path());
  TlsIdentity identity_{readSmallFile(files_.certificate), readSmallFile(files_.key)};
  std::string url_;
  std::unique_ptr<HttpServer> server_;
};

TEST_F(HttpServerTest, HandsTheWholeRequestOverAndTheAnswerBack) {
  std::promise<HttpRequest> seen;
  serve([&](const HttpRequest& request) {
    seen.set_value(request);
    return HttpReply{201, "{\"fine\":true}"};
  });
  const Answer answer = client().post("/a%20path?one=1&two=a%26b", "k=1&j=2", {"X-Own: value"});
  EXPECT_EQ(CURLE_OK, answer.result);
  EXPECT_EQ(201, answer.status);
  EXPECT_EQ("{\"fine\":true}", answer.body);
  EXPECT_EQ("application/json; charset=utf-8", answer.content_type);
  const HttpRequest request = seen.get_future().get();
  EXPECT_EQ("POST", request.method);
  EXPECT_EQ("/a path", request.path);
  EXPECT_EQ((NamedValues{{"one", "1"}, {"two", "a&b"}}), request.query);
  EXPECT_EQ("k=1&j=2", request.body);
  EXPECT_EQ(7U, request.body_bytes);
  EXPECT_FALSE(request.body_too_large);
  EXPECT_TRUE(request.from_loopback);
  ASSERT_NE(nullptr, findHeader(request, "x-own"));
  EXPECT_EQ("value", *findHeader(request, "x-own"));
}

TEST_F(HttpServerTest, AConnectionIsKeptForTheNextRequest) {
  serve([](const HttpRequest& request) { return HttpReply{200, request.path}; });
  HttpsClient one = client();
  EXPECT_EQ("/first", one.get("/first").body);
  EXPECT_EQ("/second", one.get("/second").body);
  EXPECT_EQ("/third", one.remove("/third").body);
}

TEST_F(HttpServerTest, AClientThatDoesNotTrustTheAuthorityIsNotServed) {
  bool served = false;
  serve([&](const HttpRequest&) {
    served = true;
    return HttpReply{};
  });
  const CertificateFiles other = makeCertificates(folder_.path("other"));
  EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, HttpsClient(url_, other.authority).get("/").result);
  EXPECT_FALSE(served);
}

TEST_F(HttpServerTest, ClosesWithoutAnAnswerWhenAskedTo) {
  serve([](const HttpRequest&) { return HttpReply{.close_without_answer = true}; });
  const Answer answer = client().post("/", "k=1");
  EXPECT_TRUE(answer.result == CURLE_GOT_NOTHING || answer.result == CURLE_RECV_ERROR) << answer.result;
  EXPECT_EQ(0, answer.status);
}

TEST_F(HttpServerTest, DelaysTheAnswerOfOneConnectionAlone) {
  constexpr std::chrono::milliseconds kDelay{200};
  serve([&](const HttpRequest& request) {
    return HttpReply{.body = "{}", .delay = request.path == "/late" ? kDelay : std::chrono::milliseconds(0)};
  });
  std::thread late([&] {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(200, client().get("/late").status);
    EXPECT_GE(std::chrono::steady_clock::now() - start, kDelay);
  });
  EXPECT_EQ(200, client().get("/").status);
  late.join();
}

TEST_F(HttpServerTest, StoppingEndsADelayAtOnce) {
  std::promise<void> waiting;
  serve([&](const HttpRequest&) {
    waiting.set_value();
    return HttpReply{.body = "{}", .delay = std::chrono::hours(1)};
  });
  std::thread late([&] { EXPECT_NE(CURLE_OK, client().get("/").result); });
  waiting.get_future().get();
  server_.reset();
  late.join();
}

// Returns its pieces, then waits for the stop.
class Pieces : public BodyStream {
 public:
  explicit Pieces(std::vector<std::string> pieces, bool endless = false)
      : pieces_(std::move(pieces)), endless_(endless) {}

  std::optional<std::string> next(const std::stop_token& stop) override {
    if (next_ < pieces_.size())
      return pieces_[next_++];
    if (endless_) {
      waiting_.set_value();
      std::promise<void> stopped;
      const std::stop_callback on_stop(stop, [&] { stopped.set_value(); });
      stopped.get_future().wait();
    }
    return std::nullopt;
  }
  void waitUntilItWaits() { waiting_.get_future().wait(); }

 private:
  const std::vector<std::string> pieces_;
  const bool endless_;
  std::size_t next_ = 0;
  std::promise<void> waiting_;
};

HttpReply streaming(std::shared_ptr<BodyStream> stream) {
  HttpReply reply;
  reply.content_type = "text/plain";
  reply.stream = std::move(stream);
  return reply;
}

// One piece, after a delay.
class LateNews : public BodyStream {
 public:
  LateNews(HttpServer& server, std::chrono::milliseconds after) : server_(server), after_(after) {}
  std::optional<std::string> next(const std::stop_token&) override {
    if (std::exchange(is_told_, true) || !server_.waitUnlessStopping(after_))
      return std::nullopt;
    return "news";
  }

 private:
  HttpServer& server_;
  const std::chrono::milliseconds after_;
  bool is_told_ = false;
};

TEST_F(HttpServerTest, AStreamArrivesWhole) {
  const std::string large(100000, 'x');
  serve([&](const HttpRequest&) {
    return streaming(std::make_shared<Pieces>(std::vector<std::string>{"one ", large, " two"}));
  });
  HttpsClient one = client();
  for (int i = 0; i < 2; ++i) {
    const Answer answer = one.get("/");
    EXPECT_EQ("one " + large + " two", answer.body);
    EXPECT_EQ("text/plain", answer.content_type);
  }
}

TEST_F(HttpServerTest, AStreamThatThrowsEnds) {
  class Broken : public BodyStream {
    std::optional<std::string> next(const std::stop_token&) override { throw std::runtime_error("inside"); }
  };
  serve([](const HttpRequest&) { return streaming(std::make_shared<Broken>()); });
  EXPECT_EQ("", client().get("/").body);
}

TEST_F(HttpServerTest, StoppingEndsAStreamAtOnce) {
  const auto stream = std::make_shared<Pieces>(std::vector<std::string>{"one"}, true);
  serve([&](const HttpRequest&) { return streaming(stream); });
  std::thread watching([&] { EXPECT_EQ("one", client().get("/").body); });
  stream->waitUntilItWaits();
  server_.reset();
  watching.join();
}

TEST_F(HttpServerTest, FurtherHeadersGoOut) {
  serve([](const HttpRequest&) { return HttpReply{.body = "{}", .headers = {{"X-Own", "value"}}}; });
  EXPECT_EQ("value", client().get("/").own_header);
}

TEST_F(HttpServerTest, ABodyOfTheLimitIsKeptAndOneByteMoreIsOnlyCounted) {
  serve([](const HttpRequest& request) {
    return HttpReply{200, std::to_string(request.body.size()) + " of " + std::to_string(request.body_bytes) +
                              (request.body_too_large ? " too large" : "")};
  });
  HttpsClient one = client();
  EXPECT_EQ("16777216 of 16777216", one.post("/", std::string(kMaxBodyBytes, 'x')).body);
  EXPECT_EQ("0 of 16777217 too large", one.post("/", std::string(kMaxBodyBytes + 1, 'x')).body);
}

TEST_F(HttpServerTest, ASenderThatDoesNotStopIsCutOff) {
  bool served = false;
  serve([&](const HttpRequest&) {
    served = true;
    return HttpReply{};
  });
  EXPECT_NE(CURLE_OK, client().post("/", std::string(kMaxDiscardedBytes + 1, 'x')).result);
  server_.reset();
  EXPECT_FALSE(served);
}

TEST_F(HttpServerTest, BodiesBeyondTheMemoryAreTurnedAwayAndRoomComesBack) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; });
  ASSERT_TRUE(server_->reserve(kMaxBufferedBytes));
  EXPECT_FALSE(server_->reserve(1));
  const Answer turned_away = client().post("/", "k=1");
  EXPECT_EQ(503, turned_away.status);
  EXPECT_EQ(
      "{\"error\":\"too many request bodies at once\",\"where\":\"the service's memory\",\"fix\":\"send again "
      "later\"}",
      turned_away.body);
  server_->release(kMaxBufferedBytes);
  EXPECT_EQ(200, client().post("/", "k=1").status);
}

TEST_F(HttpServerTest, AHandlerThatThrowsIsAnsweredForAndTheServerGoesOn) {
  serve([](const HttpRequest& request) -> HttpReply {
    if (request.path == "/bad")
      throw std::runtime_error("inside");
    return {200, "{}"};
  });
  HttpsClient one = client();
  EXPECT_EQ(500, one.get("/bad").status);
  EXPECT_EQ(200, one.get("/").status);
}

TEST_F(HttpServerTest, ServesSeveralConnectionsAtOnce) {
  serve([](const HttpRequest& request) { return HttpReply{200, request.body}; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([this, t] {
      HttpsClient one = client();
      for (int i = 0; i < 5; ++i) {
        const std::string body(static_cast<std::size_t>(1000 * t + i), static_cast<char>('a' + t));
        EXPECT_EQ(body, one.post("/", body).body);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST_F(HttpServerTest, NoClientHoldsMoreThanHalfOfTheConnections) {
  EXPECT_EQ(128U, kMaxConnections);
  EXPECT_EQ(64U, kMaxConnectionsOfAClient);
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; });
  const auto kept = connectionsFrom("127.0.0.1", kMaxConnectionsOfAClient);
  EXPECT_NE(CURLE_OK, HttpsClient(url_, files_.authority, "127.0.0.1").get("/").result);
  for (const auto& one : kept)
    EXPECT_EQ(200, one->get("/").status);
}

TEST_F(HttpServerTest, AnotherAddressOfThisMachineIsNoOtherClient) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, {.connections_of_a_client = 4});
  const auto kept = connectionsFrom("127.0.0.1", 2);
  const auto further = connectionsFrom("127.0.0.2", 2);
  EXPECT_NE(CURLE_OK, HttpsClient(url_, files_.authority, "127.0.0.3").get("/").result);
}

TEST_F(HttpServerTest, AConnectionBeyondTheLimitIsClosedAndTheOthersGoOn) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, {.connections = 4, .connections_of_a_client = 5});
  const auto kept = connectionsFrom("127.0.0.1", 4);
  EXPECT_NE(CURLE_OK, client().get("/").result);
  EXPECT_EQ(200, kept.front()->get("/").status);
  EXPECT_EQ(200, kept.back()->get("/").status);
}

TEST_F(HttpServerTest, APlaceThatAClientLeftIsTakenAgain) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, {.connections_of_a_client = 1});
  std::make_unique<HttpsClient>(url_, files_.authority)->get("/");
  const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  CURLcode result = CURLE_COULDNT_CONNECT;
  while (result != CURLE_OK && std::chrono::steady_clock::now() < patience)
    result = client().get("/").result;
  EXPECT_EQ(CURLE_OK, result);
}

TEST_F(HttpServerTest, AnIdleConnectionIsClosed) {
  EXPECT_EQ(30U, kIdleSeconds);
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, {.idle_seconds = 1});
  HttpsClient one = client();
  ASSERT_EQ(200, one.get("/").status);
  EXPECT_TRUE(one.waitUntilClosed());
  EXPECT_EQ(200, one.get("/").status);
}

TEST_F(HttpServerTest, AConnectionThatNeverAsksIsClosed) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, {.idle_seconds = 1});
  HttpsClient silent = client();
  ASSERT_EQ(CURLE_OK, silent.connect());
  EXPECT_TRUE(silent.waitUntilClosed());
}

// No client is idle for too long here: the head's timeout closes the connection.
constexpr ServerLimits kShortHead{.idle_seconds = 3600, .head_seconds = 1};

TEST_F(HttpServerTest, AHeadThatDoesNotBecomeWholeIsClosed) {
  EXPECT_EQ(60U, kHeadSeconds);
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, kShortHead);
  HttpsClient silent = client();
  HttpsClient slow = client();
  ASSERT_EQ(CURLE_OK, silent.connect());
  ASSERT_EQ(CURLE_OK, slow.connect());
  ASSERT_EQ(CURLE_OK, slow.send("GET / HTTP/1.1\r\nHost: localhost\r\n"));
  EXPECT_TRUE(slow.waitUntilClosed());
  EXPECT_TRUE(silent.waitUntilClosed());
}

TEST_F(HttpServerTest, AHeadAfterAnAnswerHasTheSameBound) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; }, kShortHead);
  HttpsClient slow = client();
  ASSERT_EQ(CURLE_OK, slow.connect());
  ASSERT_EQ(CURLE_OK, slow.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\nGET / HTTP/1.1\r\n"));
  EXPECT_TRUE(slow.receive().starts_with("HTTP/1.1 200"));
  EXPECT_TRUE(slow.waitUntilClosed());
}

TEST_F(HttpServerTest, ABodyAndAnAnswerMayTakeLongerThanAHead) {
  constexpr std::chrono::milliseconds kLongerThanAHead{1500};
  serve(
      [&](const HttpRequest& request) {
        return HttpReply{.body = request.body, .delay = kLongerThanAHead * (request.path == "/late" ? 1 : 0)};
      },
      kShortHead);
  HttpsClient pausing = client();
  ASSERT_EQ(CURLE_OK, pausing.connect());
  ASSERT_EQ(CURLE_OK, pausing.send("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 2\r\n\r\na"));
  EXPECT_EQ(200, client().get("/late").status);
  ASSERT_EQ(CURLE_OK, pausing.send("b"));
  EXPECT_TRUE(pausing.receive().starts_with("HTTP/1.1 200"));
}

TEST_F(HttpServerTest, AWaitOfTheServersOwnIsNotTheClientsIdleness) {
  constexpr std::chrono::milliseconds kLongerThanIdle{1500};
  serve(
      [&](const HttpRequest& request) {
        if (request.path == "/stream")
          return streaming(std::make_shared<LateNews>(*server_, kLongerThanIdle));
        return HttpReply{.body = "{}", .delay = kLongerThanIdle};
      },
      {.idle_seconds = 1});
  EXPECT_EQ(200, client().get("/").status);
  EXPECT_EQ("news", client().get("/stream").body);
}

TEST_F(HttpServerTest, AStreamEndsAsSoonAsItsReaderIsGone) {
  class Endless : public BodyStream {
   public:
    explicit Endless(std::promise<void>& gone) : gone_(gone) {}
    ~Endless() override { gone_.set_value(); }
    std::optional<std::string> next(const std::stop_token& stop) override {
      if (!std::exchange(has_begun_, true))
        return "one";
      std::promise<void> stopped;
      const std::stop_callback on_stop(stop, [&] { stopped.set_value(); });
      stopped.get_future().wait();
      return std::nullopt;
    }

   private:
    std::promise<void>& gone_;
    bool has_begun_ = false;
  };
  std::promise<void> gone;
  serve([&](const HttpRequest&) { return streaming(std::make_shared<Endless>(gone)); });
  EXPECT_EQ(CURLE_WRITE_ERROR, client().getAndLeave("/").result);
  EXPECT_EQ(std::future_status::ready, gone.get_future().wait_for(std::chrono::seconds(60)));
  server_.reset();  // before the promise
}

TEST_F(HttpServerTest, HeadersBeyondTheLimitAreRefused) {
  serve([](const HttpRequest&) { return HttpReply{200, "{}"}; });
  const Answer answer = client().post("/", "k=1", {"X-Large: " + std::string(kMaxHeaderBytes, 'x')});
  EXPECT_NE(200, answer.status);
}

TEST_F(HttpServerTest, AKeyThatDoesNotFitIsSaid) {
  identity_.key_pem = readSmallFile(makeCertificates(folder_.path("other")).key);
  EXPECT_THROW(serve([](const HttpRequest&) { return HttpReply{}; }), SetupError);
  identity_.key_pem = "nonsense";
  EXPECT_THROW(serve([](const HttpRequest&) { return HttpReply{}; }), SetupError);
}

}  // namespace
}  // namespace morvik_service
