#include "testing/scripted_transport.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>
#include <variant>

#include "services/json_writer.h"

namespace morvik::testing {
namespace {

/// "https://host:port" of a URL, by which connections are counted.
std::string hostOf(const std::string& url) {
  const size_t scheme = url.find("://");
  const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
  return url.substr(0, url.find_first_of("/?#", start));
}

double timeoutOf(const kit::Request& request) {
  return request.timeout_seconds.value_or(kDefaultTimeoutSeconds);
}

std::string asText(double seconds) {
  char text[32];
  return {text, std::to_chars(text, text + sizeof text, seconds).ptr};
}

kit::TransportOutcome failure(kit::Error error) {
  return {.response = std::nullopt, .error = std::move(error)};
}

}  // namespace

// ----------------------------------------------------------------------------------------------------------- answers

Answer Answer::json(int status, const kit::Value& value) {
  auto text = services::writeJson(value);
  if (const auto* error = std::get_if<kit::Error>(&text))
    throw std::invalid_argument("an answer cannot be written as JSON: " + error->message);
  return body(status, std::get<std::string>(std::move(text)));
}

Answer Answer::body(int status, std::string body) {
  Answer answer;
  answer.status_ = status;
  answer.body_ = std::move(body);
  return answer;
}

Answer Answer::error(std::string message) {
  Answer answer;
  answer.error_ = std::move(message);
  return answer;
}

Answer Answer::silence() {
  Answer answer;
  answer.silent_ = true;
  return answer;
}

Answer Answer::after(double seconds) const {
  Answer later = *this;
  later.delay_seconds_ += seconds;
  return later;
}

ScriptedTransport::Script& ScriptedTransport::Script::then(Answer answer) {
  answers_.push_back(std::move(answer));
  return *this;
}

ScriptedTransport::Script& ScriptedTransport::Script::times(size_t count, const Answer& answer) {
  answers_.insert(answers_.end(), count, answer);
  return *this;
}

ScriptedTransport::Script& ScriptedTransport::Script::always(Answer answer) {
  return alwaysBy([answer](const kit::Request&) { return answer; });
}

ScriptedTransport::Script& ScriptedTransport::Script::alwaysBy(Reply reply) {
  standing_ = std::move(reply);
  return *this;
}

ScriptedTransport::Script& ScriptedTransport::Script::clear() {
  answers_.clear();
  standing_ = nullptr;
  return *this;
}

ScriptedTransport::Script& ScriptedTransport::on(std::string_view url_part) {
  for (Script& script : scripts_) {
    if (script.url_part_ == url_part)
      return script;
  }
  scripts_.emplace_back().url_part_ = url_part;
  return scripts_.back();
}

// ---------------------------------------------------------------------------------------------------------- exchanges

void ScriptedTransport::start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) {
  auto exchange = std::make_shared<Exchange>(Exchange{std::move(request), std::move(handler)});
  {
    const std::lock_guard lock(mutex_);
    exchange->process = process_;
    ++unanswered_;
  }
  loop_.afterCommit([this, exchange] { leave(exchange); });
}

void ScriptedTransport::leave(std::shared_ptr<Exchange> exchange) {
  const std::string host = hostOf(exchange->request.url);
  {
    const std::lock_guard lock(mutex_);
    if (exchange->process != process_)
      return;
    hosts_[host].waiting.push_back(std::move(exchange));
  }
  beginWaiting(host);
}

void ScriptedTransport::beginWaiting(const std::string& host) {
  std::vector<std::shared_ptr<Exchange>> beginning;
  {
    const std::lock_guard lock(mutex_);
    Host& at_host = hosts_[host];
    while (auto exchange = takeFirst(at_host)) {
      beginning.push_back(std::move(exchange));
      ++at_host.busy;
    }
  }
  for (const auto& exchange : beginning)
    begin(exchange);
}

/// The first that may leave; null if there is none.
std::shared_ptr<ScriptedTransport::Exchange> ScriptedTransport::takeFirst(Host& host) const {
  if (host.busy >= kMaxConnectionsPerHost || host.waiting.empty())
    return nullptr;
  auto taken = std::move(host.waiting.front());
  host.waiting.pop_front();
  return taken;
}

void ScriptedTransport::begin(const std::shared_ptr<Exchange>& exchange) {
  const kit::Request& request = exchange->request;
  if (request.when_it_leaves)
    request.when_it_leaves();
  sent_.add({request, loop_.now(), loop_.monotonicSeconds()});
  if (observer_)
    observer_(request);
  const Answer answer = chooseAnswer(request);
  const double timeout_seconds = timeoutOf(request);
  const bool too_late = answer.silent_ || answer.delay_seconds_ > timeout_seconds;
  const double delay_seconds = too_late ? timeout_seconds : answer.delay_seconds_;
  const kit::TransportOutcome outcome =
      too_late ? failure({.message = request.url + ": no answer within " + asText(timeout_seconds) + " s",
                          .is_timeout = true})
               : outcomeOf(answer, request);
  loop_.mainQueue().after(delay_seconds, [this, exchange, outcome] { finish(exchange, outcome); });
}

void ScriptedTransport::finish(const std::shared_ptr<Exchange>& exchange, const kit::TransportOutcome& outcome) {
  const std::string host = hostOf(exchange->request.url);
  {
    const std::lock_guard lock(mutex_);
    if (exchange->process != process_)
      return;
    --hosts_[host].busy;
    --unanswered_;
  }
  beginWaiting(host);
  exchange->handler(outcome);
}

Answer ScriptedTransport::chooseAnswer(const kit::Request& request) {
  if (offline_error_)
    return Answer::error(*offline_error_);
  for (Script& script : scripts_) {
    if (request.url.find(script.url_part_) == std::string::npos)
      continue;
    if (!script.answers_.empty()) {
      Answer answer = std::move(script.answers_.front());
      script.answers_.pop_front();
      return answer;
    }
    if (script.standing_)
      return script.standing_(request);
  }
  if (default_)
    return default_(request);
  return Answer::error("scripted transport: no answer was written down for " + request.method + " " + request.url);
}

kit::TransportOutcome ScriptedTransport::outcomeOf(const Answer& answer, const kit::Request& request) {
  if (answer.error_)
    return failure({*answer.error_});
  const size_t limit = request.max_answer_bytes == 0 ? kDefaultMaxAnswerBytes : request.max_answer_bytes;
  kit::TransportOutcome outcome;
  outcome.response = kit::Response{.status_code = answer.status_, .url = request.url, .body = answer.body_};
  if (answer.body_.size() > limit) {
    outcome.response->body.clear();
    outcome.error = kit::Error{request.url + ": the answer is larger than " + std::to_string(limit) + " bytes"};
  }
  return outcome;
}

// ------------------------------------------------------------------------------------------------------------ looking

std::vector<kit::Request> ScriptedTransport::requests(std::string_view url_part) const {
  std::vector<kit::Request> found;
  for (const SentRequest& sent : sent_.all()) {
    if (sent.request.url.find(url_part) != std::string::npos)
      found.push_back(sent.request);
  }
  return found;
}

size_t ScriptedTransport::unanswered() const {
  const std::lock_guard lock(mutex_);
  return unanswered_;
}

size_t ScriptedTransport::waitingForConnection() const {
  const std::lock_guard lock(mutex_);
  size_t count = 0;
  for (const auto& [name, host] : hosts_)
    count += host.waiting.size();
  return count;
}

void ScriptedTransport::kill() {
  const std::lock_guard lock(mutex_);
  ++process_;
  held_ = false;
  hosts_.clear();
  unanswered_ = 0;
}

}  // namespace morvik::testing
