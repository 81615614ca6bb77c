#include "apps/device/ledger_reporter.h"

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "apps/device/ledger_rows.h"
#include "apps/device/visible.h"
#include "services/json_writer.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

/// Time for the handler to be called, in addition to the request's timeout.
constexpr double kGraceSeconds = 2;
constexpr size_t kMaxAnswerBytes = 64 * 1024;
constexpr size_t kShownBytes = 300;

std::string bodyOf(const morvik::Ledger& ledger, const std::string& install) {
  const LedgerRows rows = rowsOf(ledger);
  std::string text;
  morvik::services::appendJsonDescription(
      kit::Dictionary{{"install", install}, {"accounts", rows.accounts}, {"given_up", rows.given_up}}, text);
  return text;
}

kit::Request requestOf(const std::string& url, const std::string& body) {
  kit::Request request;
  request.method = "POST";
  request.url = url;
  request.headers = {{"Content-Type", "application/json"}};
  request.body = body;
  request.timeout_seconds = kReportTimeoutSeconds;
  request.max_answer_bytes = kMaxAnswerBytes;
  return request;
}

/// Why the report failed.
std::optional<std::string> failureOf(const kit::TransportOutcome& outcome) {
  constexpr int kOk = 200;
  if (outcome.isNotSent())
    return "not sent: the user has asked to be forgotten";
  if (outcome.error)
    return visible(outcome.error->message);
  if (outcome.response->status_code == kOk)
    return std::nullopt;
  return "it answered " + std::to_string(outcome.response->status_code) + " " +
         visible(std::string_view(outcome.response->body).substr(0, kShownBytes));
}

/// Without the first " after " and a time like "3 ms" behind it.
std::string withoutDuration(const std::string& line) {
  constexpr std::string_view kBefore = " after ";
  constexpr std::string_view kUnit = " ms";
  const size_t start = line.find(kBefore);
  if (start == std::string::npos)
    return line;
  const size_t end = line.find_first_not_of("0123456789", start + kBefore.size());
  if (end == std::string::npos || line.compare(end, kUnit.size(), kUnit) != 0)
    return line;
  return line.substr(0, start) + line.substr(end + kUnit.size());
}

}  // namespace

LedgerReporter::LedgerReporter(kit::Transport& transport, std::string service_url, std::string install,
                               std::function<void(const std::string& line)> complain)
    : transport_(transport),
      url_(std::move(service_url) + "inspect/ledger"),
      install_(std::move(install)),
      complain_(std::move(complain)) {}

void LedgerReporter::tell(const morvik::Ledger& ledger) {
  std::string body = bodyOf(ledger, install_);
  if (body == last_told_)
    return;
  const auto answer = std::make_shared<std::promise<kit::TransportOutcome>>();
  std::future<kit::TransportOutcome> answered = answer->get_future();
  transport_.start(requestOf(url_, body),
                   [answer](kit::TransportOutcome outcome) { answer->set_value(std::move(outcome)); });
  const std::chrono::duration<double> patience(kReportTimeoutSeconds + kGraceSeconds);
  std::optional<std::string> failure = "nothing answers in time";
  if (answered.wait_for(patience) == std::future_status::ready)
    failure = failureOf(answered.get());
  if (failure)
    return complain("the ledger could not be reported to " + url_ + ": " + *failure);
  last_told_ = std::move(body);
  last_complaint_.clear();
}

/// Reasons that differ only in a duration are the same.
void LedgerReporter::complain(const std::string& line) {
  std::string kind = withoutDuration(line);
  if (kind == last_complaint_)
    return;
  complain_(line);
  last_complaint_ = std::move(kind);
}

}  // namespace morvik_device
