#include "apps/service/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "morvik/version.h"

namespace morvik_service {
namespace {

constexpr const char* kFooter =
    "Keys on a command line can be read by others; prefer --keys, a file with the lines app-key=..., hash-key=... and "
    "tracking-key=.... An option wins over the file.\n"
    "When the service listens, it prints one line of JSON: {\"listening\":\"https://127.0.0.1:PORT/\"}. It ends on "
    "SIGINT or SIGTERM. Open that address in a browser to see what arrives.\n"
    "morvik-service expect EXPRESSION waits on a running service: morvik-service expect --help.";

void describeListening(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "TCP port; 0 takes a free one")->capture_default_str();
  app.add_option("--bind", options.bind_address, "numeric address to listen on")->capture_default_str();
  app.add_flag("--allow-remote", options.allow_remote, "let --bind be an address that other machines can reach");
  app.add_option("--inspect-host", options.inspect_hosts,
                 "let other machines inspect too, when they call the service by this name or address; may be repeated")
      ->take_all()
      ->allow_extra_args(false);
  app.add_option("--port-file", options.port_file, "write the port into this file once the service listens");
  CLI::Option* make =
      app.add_option("--make-cert", options.make_certificates_in,
                     "use the authority ca.pem and the certificate cert.pem in this folder, for localhost, 127.0.0.1 "
                     "and ::1, and make what is missing or no longer valid; other machines need --cert and --key with "
                     "the name they call");
  CLI::Option* certificate = app.add_option("--cert", options.certificate_file, "server certificate, PEM");
  CLI::Option* key = app.add_option("--key", options.key_file, "its private key, PEM");
  certificate->needs(key)->excludes(make);
  key->needs(certificate)->excludes(make);
}

void describeRest(CLI::App& app, Options& options) {
  app.add_option("--store", options.store_folder, "folder of the database; made when missing, for its owner alone")
      ->required();
  app.add_option("--keep-mib", options.keep_mib,
                 "MiB that the store keeps; past that the oldest requests go, what was counted stays counted")
      ->check(CLI::Range(std::int64_t{1}, kMaxKeepMib))
      ->capture_default_str();
  app.add_option("--keys", options.keys_file, "file with the keys");
  app.add_option("--app-key", options.app_key, "the app's key");
  app.add_option("--hash-key", options.hash_key, "the app's hash key");
  app.add_option("--tracking-key", options.tracking_key,
                 "the app's tracking key; without it tracking and demographics are refused");
  app.add_option("--attribution", options.attribution,
                 "JSON object, or a file with one: members of the conversion answer's Data, e.g. deeplink");
  app.add_option("--schedule", options.schedule_file,
                 "file with a JSON object, the campaign schedule; read anew when it changes; without it a small one");
  app.add_option("--premium-postback", options.premium_postback, "what the app configuration says of premium postbacks")
      ->check(CLI::IsMember({"yes", "no"}))
      ->capture_default_str();
  CLI::Option* log = app.add_option("--log", options.log_file, "append the request lines to this file, not to stderr");
  app.add_flag("--quiet", options.quiet, "print no request lines")->excludes(log);
}

// One colon stands before a port; addresses have more.
bool isHostName(const std::string& text) {
  return !text.empty() && text.find_first_of("/[] \t") == std::string::npos &&
         std::count(text.begin(), text.end(), ':') != 1;
}

std::string problemOf(const Options& options) {
  for (const std::string& host : options.inspect_hosts) {
    if (!isHostName(host)) {
      return "--inspect-host " + host +
             " is no name or address alone; give it without scheme, brackets and port, such as "
             "build.example or 192.0.2.7";
    }
  }
  if (options.certificate_file.empty() && options.make_certificates_in.empty()) {
    return "TLS needs a certificate: give --make-cert FOLDER, or --cert FILE and --key FILE";
  }
  return "";
}

}  // namespace

CommandLine readCommandLine(std::vector<std::string> arguments) {
  Options options;
  CLI::App app(
      "Local tracking service: takes what a device sends over TLS, decodes it, shows it, and misbehaves on "
      "request.",
      "morvik-service");
  app.footer(kFooter);
  app.set_version_flag("--version", "morvik-service " + std::string(morvik::kVersion));
  describeListening(app, options);
  describeRest(app, options);
  std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
  try {
    app.parse(arguments);
  } catch (const CLI::CallForHelp&) {
    return {std::nullopt, app.help(), 0};
  } catch (const CLI::CallForVersion& version) {
    return {std::nullopt, std::string(version.what()) + "\n", 0};
  } catch (const CLI::ParseError& error) {
    return {std::nullopt, std::string(error.what()) + "; see morvik-service --help\n", kExitUsage};
  }
  const std::string problem = problemOf(options);
  if (!problem.empty())
    return {std::nullopt, problem + "; see morvik-service --help\n", kExitUsage};
  return {options, "", 0};
}

}  // namespace morvik_service
