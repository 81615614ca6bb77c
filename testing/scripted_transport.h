// A network with scripted answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/transport.h"
#include "testing/recording.h"
#include "testing/virtual_loop.h"

namespace morvik::testing {

/// Limit for simultaneous requests to one host; the rest wait in order.
inline constexpr size_t kMaxConnectionsPerHost = 6;
/// The timeout of a request that sets none.
inline constexpr double kDefaultTimeoutSeconds = 60.0;
/// The limit for an answer's body when the request sets none.
inline constexpr size_t kDefaultMaxAnswerBytes = size_t{4} * 1024 * 1024;

/// One answer of the server, or a failure of the network.
class Answer {
 public:
  /// Status 200 with this JSON. std::invalid_argument if the value has no JSON form.
  static Answer json(const kit::Value& value) { return json(200, value); }
  static Answer json(int status, const kit::Value& value);
  static Answer body(int status, std::string body);
  /// No answer, only this error.
  static Answer error(std::string message);
  /// No answer ever comes: the request times out.
  static Answer silence();
  /// The same answer, this many seconds (of virtual time) later.
  Answer after(double seconds) const;

 private:
  friend class ScriptedTransport;
  int status_ = 0;
  std::string body_;
  std::optional<std::string> error_;
  bool silent_ = false;
  double delay_seconds_ = 0;
};

/// A request that left.
struct SentRequest {
  kit::Request request;
  kit::Date wall_clock;          ///< when it left
  double monotonic_seconds = 0;  ///< when it left
};

/// Requests leave after the commit of the turn in which they were started; each handler runs in its own turn of the
/// main queue. start() may be called from any thread, everything else from the test's thread only.
class ScriptedTransport : public kit::Transport {
 public:
  using Reply = std::function<Answer(const kit::Request&)>;

  /// The answers to requests whose URL contains a certain text. They are used in order, each once; after the last one,
  /// the standing answer, if there is one.
  class Script {
   public:
    /// Adds an answer to be used once.
    Script& then(Answer answer);
    /// Adds an answer to be used `count` times.
    Script& times(size_t count, const Answer& answer);
    /// The standing answer, used when the others are used up.
    Script& always(Answer answer);
    /// Like always(), but made for each request: a small server.
    Script& alwaysBy(Reply reply);
    /// Removes every answer that was not used yet.
    Script& clear();
    /// Number of unused answers, without the standing one.
    size_t waiting() const { return answers_.size(); }

   private:
    friend class ScriptedTransport;
    std::string url_part_;
    std::deque<Answer> answers_;
    Reply standing_;
  };

  /// `loop` must outlive the transport.
  explicit ScriptedTransport(VirtualLoop& loop) : loop_(loop) {}

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override;

  /// The script for URLs that contain `url_part` ("v1/tracking"). Scripts are asked in the order in which they were
  /// made; the first that has an answer gives it. Valid as long as the transport.
  Script& on(std::string_view url_part);
  /// For requests that no script answers. Initially an error that names the URL.
  void setDefaultAnswer(const Answer& answer) {
    default_ = [answer](const kit::Request&) { return answer; };
  }
  /// Like setDefaultAnswer(), but made for each request: a small server behind the scripts.
  void setDefaultReply(Reply reply) { default_ = std::move(reply); }
  /// Every request fails with this error until goOnline(), whatever the scripts say; they keep their answers.
  void goOffline(std::string error = "the network is unreachable") { offline_error_ = std::move(error); }
  void goOnline() { offline_error_.reset(); }

  /// Requests that left, oldest first (the latest kMaxRecordedEntries).
  std::vector<SentRequest> sent() const { return sent_.all(); }
  std::vector<kit::Request> requests() const { return requests(""); }
  /// Those whose URL contains `url_part`.
  std::vector<kit::Request> requests(std::string_view url_part) const;
  void clearRequests() { sent_.clear(); }
  /// Called for each request as it leaves, before its answer is chosen.
  void setObserver(std::function<void(const kit::Request&)> observer) { observer_ = std::move(observer); }

  /// Requests that were started and whose handler has not run.
  size_t unanswered() const;
  /// Requests that wait for a connection to their host.
  size_t waitingForConnection() const;

  /// The process dies: nothing more leaves, no handler runs. Scripts and the record of sent requests stay.
  void kill();

 private:
  struct Exchange {
    kit::Request request;
    std::function<void(kit::TransportOutcome)> handler;
    uint64_t process = 0;  ///< the one that started it
  };
  struct Host {
    size_t busy = 0;
    std::deque<std::shared_ptr<Exchange>> waiting;
  };

  void leave(std::shared_ptr<Exchange> exchange);
  void beginWaiting(const std::string& host);
  void begin(const std::shared_ptr<Exchange>& exchange);
  std::shared_ptr<Exchange> takeFirst(Host& host) const;
  void finish(const std::shared_ptr<Exchange>& exchange, const kit::TransportOutcome& outcome);
  Answer chooseAnswer(const kit::Request& request);
  static kit::TransportOutcome outcomeOf(const Answer& answer, const kit::Request& request);

  VirtualLoop& loop_;
  std::list<Script> scripts_;
  Reply default_;
  std::optional<std::string> offline_error_;
  std::function<void(const kit::Request&)> observer_;
  Recording<SentRequest> sent_;

  mutable std::mutex mutex_;  // guards the members below
  std::map<std::string, Host> hosts_;
  size_t unanswered_ = 0;
  bool held_ = false;
  uint64_t process_ = 0;  // counts the processes that died
};

}  // namespace morvik::testing
