#include "apps/service/expect/expect_options.h"

#include "apps/service/base/files.h"
#include "apps/service/base/refusal.h"
#include "apps/service/http/certificate.h"
#include "apps/text/durations.h"

namespace morvik_service {
namespace {

using morvik_command_line::UsageError;

constexpr const char* kExpectFooter =
    "The expression compares fields with values: activity == \"purchase\" and group == \"shop\". Comparisons are ==, "
    "!=, <, <=, >, >= and contains, joined by and, or, not and parentheses.\n"
    "When it names a field of events (group, activity, param, prev_group, prev_activity, created_at, event_id), events "
    "are counted, each once by its id; otherwise requests are. Fields of requests: id, time, endpoint, method, path, "
    "header.NAME, body, body_bytes, payload.MEMBER, install, counted, refused, refusal, behaviour, status, "
    "answer.MEMBER, events_new, events_again, impressions.\n"
    "Exit status: 0 met, 1 not met (the closest near misses are printed), 2 the command line or the expression cannot "
    "be used, or no service answers.";

std::string trimmed(const std::string& text) {
  const std::size_t end = text.find_last_not_of(" \r\n\t");
  return end == std::string::npos ? "" : text.substr(0, end + 1);
}

struct ServicePlace {
  std::string port_file;
  std::string certificate_folder;
};

void describe(CLI::App& app, ExpectOptions& options, std::string& within, ServicePlace& place) {
  app.add_option("EXPRESSION", options.expression, "what is expected")->type_name("")->required();
  app.add_option("--within", within, "how long to wait: 250ms, 5s, 2m")->type_name("TIME")->capture_default_str();
  CLI::Option* count = app.add_option("--count", options.count, "how many must match, at least");
  morvik_command_line::takeInRange(count, 1, 1000000)->capture_default_str();
  app.add_flag("--none", options.none, "nothing may match until the time is over")->excludes(count);
  CLI::Option* now = app.add_flag("--from-now", options.from_now, "ignores what arrived earlier");
  app.add_option("--after", options.after, "ignores requests up to and including this number")
      ->check(CLI::NonNegativeNumber.description(""))
      ->excludes(now);
  app.add_option(
         "--make-cert", place.certificate_folder,
         "folder that the service was given with --make-cert; it says where the service listens and whom to trust")
      ->type_name("FOLDER");
  app.add_option("--url", options.url, "where the service listens, as it printed it")->type_name("URL");
  app.add_option("--port-file", place.port_file, "file that the service was given with --port-file")->type_name("FILE");
  app.add_option("--ca", options.authority_file, "PEM file of certificates to trust")->type_name("FILE");
}

// The folder provides both; the single options override it.
std::string findService(ExpectOptions& options, const ServicePlace& place) {
  const std::string& folder = place.certificate_folder;
  if (options.url.empty() && !place.port_file.empty())
    options.url = "https://127.0.0.1:" + trimmed(readSmallFile(place.port_file)) + "/";
  if (options.url.empty() && !folder.empty())
    options.url = trimmed(readSmallFile(folder + "/" + kUrlFileName));
  if (options.authority_file.empty() && !folder.empty())
    options.authority_file = folder + "/ca.pem";
  if (options.url.empty())
    return "say where the service listens: --make-cert FOLDER, --url URL or --port-file FILE";
  if (options.authority_file.empty())
    return "say whom to trust: --make-cert FOLDER or --ca FILE";
  if (options.url.back() != '/')
    options.url += '/';
  return "";
}

}  // namespace

std::optional<std::chrono::milliseconds> parseWithin(const std::string& text) {
  const bool lacks_unit = !text.empty() && text.back() >= '0' && text.back() <= '9';
  const std::optional<std::int64_t> duration = morvik_text::readDuration(lacks_unit ? text + "s" : text);
  if (!duration || std::chrono::milliseconds(*duration) > kMaxWithin)
    return std::nullopt;
  return std::chrono::milliseconds(*duration);
}

std::shared_ptr<const ExpectOptions> describeExpectOptions(CLI::App& app) {
  struct Written {
    ExpectOptions options;
    std::string within = "5s";
    ServicePlace place;
  };
  const auto written = std::make_shared<Written>();
  app.footer(kExpectFooter);
  describe(app, written->options, written->within, written->place);
  app.callback([written] {
    const std::optional<std::chrono::milliseconds> patience = parseWithin(written->within);
    if (!patience)
      throw UsageError("--within " + written->within + " is not a time up to 24h; write 250ms, 5s or 2m");
    written->options.within = *patience;
    try {
      const std::string missing = findService(written->options, written->place);
      if (!missing.empty())
        throw UsageError(missing);
    } catch (const SetupError& error) {
      throw UsageError(error.what());
    }
  });
  return {written, &written->options};
}

}  // namespace morvik_service
