// The scripted transport fulfils the same contract as the real one.
#include <functional>
#include <string>
#include <utility>

#include "testing/scripted_transport.h"
#include "testing/virtual_loop.h"
#include "tests/support/transport_contract.h"

namespace morvik::test {
namespace {

class ScriptedRig {
 public:
  ScriptedRig() {
    loop_.addCommit([this] {
      if (auto action = std::exchange(at_commit_, nullptr))
        action();
    });
  }
  kit::Transport& transport() { return transport_; }
  std::string url(const std::string& path) { return "https://server.example" + path; }
  void answer(const std::string& path, int status, const std::string& body) {
    transport_.on(url(path)).always(testing::Answer::body(status, body));
  }
  void hangUp(const std::string& path) {
    transport_.on(url(path)).always(testing::Answer::error("the connection ended"));
  }
  void keepSilent(const std::string& path) { transport_.on(url(path)).always(testing::Answer::silence()); }
  size_t arrived(const std::string& path) { return transport_.requests(url(path)).size(); }
  void post(std::function<void()> block) { loop_.mainQueue().async(std::move(block)); }
  void atCommit(std::function<void()> action) { at_commit_ = std::move(action); }
  bool isMainQueue() { return loop_.running() == testing::VirtualLoop::Running::kMainBlock; }
  bool runUntil(const std::function<bool()>& done) { return loop_.advanceUntil(done, 1000); }

 private:
  testing::VirtualLoop loop_;
  testing::ScriptedTransport transport_{loop_};
  std::function<void()> at_commit_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(ScriptedTransport, TransportContract, ScriptedRig);

}  // namespace
}  // namespace morvik::test
