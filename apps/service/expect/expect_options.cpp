#include "apps/service/expect/expect_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "apps/service/base/files.h"
#include "apps/service/base/refusal.h"
#include "apps/service/http/certificate.h"
#include "apps/text/durations.h"

namespace morvik_service {
namespace {

constexpr const char* kExpectFooter =
    "The expression compares fields with values: activity == \"purchase\" and group == \"shop\". Comparisons are ==, "
    "!=, <, <=, >, >= and contains, joined by and, or, not and parentheses.\n"
    "When it names a field of events (group, activity, param, prev_group, prev_activity, created_at, event_id), events "
    "are counted, each once by its id; else requests are. Fields of requests: id, time, endpoint, method, path, header.NAME, body, "
    "body_bytes, payload.MEMBER, install, counted, refused, refusal, behaviour, status, answer.MEMBER, events_new, "
    "events_again, impressions.\n"
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
  app.add_option("expression", options.expression, "what is expected")->required();
  app.add_option("--within", within, "how long to wait: 250ms, 5s, 2m")->capture_default_str();
  CLI::Option* count = app.add_option("--count", options.count, "so many must match, at least")
                           ->check(CLI::Range(1, 1000000))
                           ->capture_default_str();
  app.add_flag("--none", options.none, "nothing may match, until the time is over")->excludes(count);
  CLI::Option* now = app.add_flag("--from-now", options.from_now, "leave out what has arrived before");
  app.add_option("--after", options.after, "leave out requests up to and with this number")
      ->check(CLI::NonNegativeNumber)
      ->excludes(now);
  app.add_option("--make-cert", place.certificate_folder,
                 "the folder that the service was given with --make-cert: tells where it listens and whom to trust");
  app.add_option("--url", options.url, "where the service listens, as it printed it");
  app.add_option("--port-file", place.port_file, "the file that the service was given with --port-file");
  app.add_option("--ca", options.authority_file, "PEM file of certificates to trust");
}

// The folder tells both; what is given by itself wins.
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

ExpectCommandLine complaint(const std::string& text) {
  return {std::nullopt, "morvik-service expect: " + text + "; see morvik-service expect --help\n", kExitUsage};
}

}  // namespace

std::optional<std::chrono::milliseconds> parseWithin(const std::string& text) {
  const bool lacks_unit = !text.empty() && text.back() >= '0' && text.back() <= '9';
  const std::optional<std::int64_t> duration = morvik_text::readDuration(lacks_unit ? text + "s" : text);
  if (!duration || std::chrono::milliseconds(*duration) > kMaxWithin)
    return std::nullopt;
  return std::chrono::milliseconds(*duration);
}

ExpectCommandLine readExpectCommandLine(std::vector<std::string> arguments) {
  ExpectOptions options;
  std::string within = "5s";
  ServicePlace place;
  CLI::App app("Waits until what arrived at a running service is as expected.", "morvik-service expect");
  app.footer(kExpectFooter);
  describe(app, options, within, place);
  std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
  try {
    app.parse(arguments);
    const std::optional<std::chrono::milliseconds> patience = parseWithin(within);
    if (!patience)
      return complaint("--within " + within + " is no time up to 24h; write 250ms, 5s or 2m");
    options.within = *patience;
    const std::string missing = findService(options, place);
    return missing.empty() ? ExpectCommandLine{options, "", 0} : complaint(missing);
  } catch (const CLI::CallForHelp&) {
    return {std::nullopt, app.help(), 0};
  } catch (const CLI::ParseError& error) {
    return complaint(error.what());
  } catch (const SetupError& error) {
    return complaint(error.what());
  }
}

}  // namespace morvik_service
