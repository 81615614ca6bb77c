#include "host/net/curl_loop.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "tests/host/net/loopback_server.h"
#include "tests/support/few_descriptors.h"

namespace morvik::host {
namespace {

constexpr std::chrono::seconds kGiveUp{20};
/// Nothing listens there.
constexpr const char* kNobody = "http://127.0.0.1:1/";
/// More than curl opens before its first wait.
constexpr unsigned kDescriptorsOfCurl = 4;

/// How a request for the URL ended; no outcome is an error too.
kit::TransportOutcome get(CurlLoop& loop, const std::string& url) {
  auto answer = std::make_shared<std::promise<kit::TransportOutcome>>();
  auto outcome = answer->get_future();
  loop.add({.method = "GET", .url = url}, [answer](kit::TransportOutcome came) { answer->set_value(std::move(came)); });
  if (outcome.wait_for(kGiveUp) != std::future_status::ready)
    return {.response = std::nullopt, .error = kit::Error{"nothing came"}};
  return outcome.get();
}

TEST(CurlLoop, SendsWhatComesOnceThereAreDescriptorsAgain) {
  for (unsigned more = 0; more <= kDescriptorsOfCurl; ++more) {
    CurlLoop loop({});
    {
      const test::FewDescriptors few(more);
      const auto outcome = get(loop, kNobody);
      ASSERT_TRUE(outcome.error);
      if (more == 0) {
        EXPECT_EQ(outcome.error->message,
                  "no request can be sent: curl could not be started; free some of the process's file descriptors or "
                  "memory");
      }
    }
    const test::LoopbackServer server({},
                                      [](const test::ServedRequest&, test::Peer& peer) { peer.answer(200, "here"); });
    const auto later = get(loop, server.url("/"));
    ASSERT_TRUE(later.response) << more << ": " << later.error->message;
    EXPECT_EQ(later.response->body, "here");
  }
}

TEST(CurlLoop, StopsAtOnceWhereItGotNoDescriptors) {
  CurlLoop loop({});
  const test::FewDescriptors none(0);
  EXPECT_TRUE(get(loop, kNobody).error);
  auto stopped = std::async(std::launch::async, [&loop] { loop.stop(); });
  ASSERT_EQ(stopped.wait_for(kGiveUp), std::future_status::ready);
}

}  // namespace
}  // namespace morvik::host
