// The service itself, without a socket: takes a request, returns an answer, stores both.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "apps/service/answers/answer_data.h"
#include "apps/service/answers/behaviours.h"
#include "apps/service/answers/endpoints.h"
#include "apps/service/base/keys.h"
#include "apps/service/base/times.h"
#include "apps/service/http/http_message.h"
#include "apps/service/inspect/admin_guard.h"
#include "apps/service/inspect/feed.h"
#include "apps/service/inspect/inspect_stream.h"
#include "apps/service/inspect/ledgers.h"
#include "apps/service/store/secrets.h"
#include "apps/service/store/store.h"

namespace morvik_service {

class Service {
 public:
  /// Takes one finished line about a request, without a line feed.
  using LineSink = std::function<void(const std::string& line)>;

  /// `store` outlives the service and is used by nobody else. `clock` and `write_line` are called on the threads that
  /// call `handle`: `write_line` on one at a time, `clock` on several.
  Service(Keys keys, AnswerData data, Store& store, Clock clock, LineSink write_line, AdminRules rules = {});

  /// Answers a request: an endpoint's, an inspection, the page, or a refusal in JSON. A stream in the reply must not
  /// outlive the service. Any thread; requests of devices wait for each other, inspections do not wait for them.
  /// Blocks for decoding and the disk, never for a behaviour's delay (that is in the reply). Does not throw,
  /// whatever a request contains.
  HttpReply handle(const HttpRequest& request);

 private:
  HttpReply answer(const HttpRequest& request);
  HttpReply answerAdmin(const HttpRequest& request);
  HttpReply takeIn(const HttpRequest& request);
  void handleEndpoint(const Endpoint& endpoint, RequestRecord& record);
  void answerUsually(const Endpoint& endpoint, bool may_count, RequestRecord& record);
  void remember(RequestRecord& record);
  std::optional<Behaviour> takeBehaviour(const Endpoint& endpoint);
  void takeAttribution();
  void writeLine(const std::string& line);

  const Keys keys_;
  const Clock clock_;
  const LineSink write_line_;
  const AdminRules rules_;
  const Secrets secrets_;
  Watchers watchers_;
  Feed feed_;
  Store& store_;
  std::mutex line_mutex_;    ///< guards write_line_
  std::mutex taking_in_;     ///< one request of a device at a time; guards data_
  AnswerData data_;          ///< its attribution is a copy of attribution_
  std::mutex choice_mutex_;  ///< guards everything below
  Behaviours behaviours_;
  Attribution attribution_;
  Ledgers ledgers_;
};

}  // namespace morvik_service
