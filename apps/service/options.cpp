#include "apps/service/options.h"

#include <algorithm>

#include "apps/command_line/completion.h"

namespace morvik_service {
namespace {

constexpr const char* kFooter =
    "Once it listens, it prints one line of JSON: {\"listening\":\"https://127.0.0.1:PORT/\"}. Open that address in a "
    "browser to see what arrives. SIGINT or SIGTERM ends it.\n"
    "Other users can read keys on a command line. Better give --keys a file with the lines app-key=..., hash-key=... "
    "and tracking-key=...; the key options override it.";

void describeListening(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "TCP port; 0 takes a free one")->capture_default_str();
  app.add_option("--bind", options.bind_address, "numeric address to listen on")
      ->type_name("ADDRESS")
      ->capture_default_str();
  app.add_flag("--allow-remote", options.allow_remote, "allows a --bind address that other machines can reach");
  app.add_option("--inspect-host", options.inspect_hosts,
                 "lets other machines inspect too, under this name or address of the service; may be repeated")
      ->take_all()
      ->allow_extra_args(false)
      ->type_name("NAME");
  app.add_option("--port-file", options.port_file, "file to write the port to once the service listens")
      ->type_name("FILE");
  CLI::Option* make =
      app.add_option("--make-cert", options.make_certificates_in,
                     "uses the authority ca.pem and the certificate cert.pem in this folder, for localhost, 127.0.0.1 "
                     "and ::1, and creates what is missing or no longer valid; for other names use --cert and --key")
          ->type_name("FOLDER");
  CLI::Option* certificate =
      app.add_option("--cert", options.certificate_file, "server certificate, PEM")->type_name("FILE");
  CLI::Option* key = app.add_option("--key", options.key_file, "its private key, PEM")->type_name("FILE");
  certificate->needs(key)->excludes(make);
  key->needs(certificate)->excludes(make);
}

void describeRest(CLI::App& app, Options& options) {
  app.add_option("--store", options.store_folder, "folder of the database; created if missing, for its owner only")
      ->required()
      ->type_name("FOLDER");
  morvik_command_line::takeInRange(
      app.add_option("--keep-mib", options.keep_mib,
                     "MiB that the store keeps; beyond that the oldest requests are removed, but stay counted"),
      std::int64_t{1}, kMaxKeepMib)
      ->capture_default_str();
  app.add_option("--keys", options.keys_file, "file with the keys")->type_name("FILE");
  app.add_option("--app-key", options.app_key, "the app's key");
  app.add_option("--hash-key", options.hash_key, "the app's hash key");
  app.add_option("--tracking-key", options.tracking_key,
                 "the app's tracking key; without it tracking and demographics are refused");
  app.add_option("--attribution", options.attribution,
                 "members of Data in the answer to a conversion, such as deeplink: a JSON object, or a file with one")
      ->type_name("JSON|FILE");
  app.add_option("--schedule", options.schedule_file,
                 "file with the campaign schedule, a JSON object, read again when it changes; without it a small one")
      ->type_name("FILE");
  morvik_command_line::takeOneOf(
      app.add_option("--premium-postback", options.premium_postback, "what the app configuration says about it"),
      {"yes", "no"})
      ->capture_default_str();
  CLI::Option* log =
      app.add_option("--log", options.log_file, "file to append the request lines to, instead of standard error")
          ->type_name("FILE");
  app.add_flag("--quiet", options.quiet, "prints no request lines")->excludes(log);
}

// A single colon precedes a port; IPv6 addresses have more.
bool isHostName(const std::string& text) {
  return !text.empty() && text.find_first_of("/[] \t") == std::string::npos &&
         std::count(text.begin(), text.end(), ':') != 1;
}

std::string problemOf(const Options& options) {
  for (const std::string& host : options.inspect_hosts) {
    if (!isHostName(host)) {
      return "--inspect-host " + host +
             " is not a plain name or address; give it without scheme, brackets and port, such as "
             "build.example or 192.0.2.7";
    }
  }
  if (options.certificate_file.empty() && options.make_certificates_in.empty()) {
    return "TLS needs a certificate: give --make-cert FOLDER, or --cert FILE and --key FILE";
  }
  return "";
}

}  // namespace

std::shared_ptr<const Options> describeServeOptions(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.footer(kFooter);
  describeListening(app, *options);
  describeRest(app, *options);
  app.callback([options] {
    const std::string problem = problemOf(*options);
    if (!problem.empty())
      throw morvik_command_line::UsageError(problem);
  });
  return options;
}

}  // namespace morvik_service
