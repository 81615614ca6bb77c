#include "apps/service/program.h"

#include <fstream>
#include <memory>
#include <utility>

#include "apps/command_line/command_line.h"
#include "apps/service/base/files.h"
#include "apps/service/base/keys.h"
#include "apps/service/base/refusal.h"
#include "apps/service/expect/expect_program.h"
#include "apps/service/http/certificate.h"
#include "apps/service/http/http_server.h"
#include "apps/service/options.h"
#include "apps/service/service.h"
#include "morvik/version.h"

namespace morvik_service {
namespace {

Keys collectKeys(const Options& options) {
  const Keys given{options.app_key, options.hash_key, options.tracking_key};
  Keys keys = options.keys_file.empty()
                  ? given
                  : mergeKeys(given, parseKeys(readSmallFile(options.keys_file), options.keys_file));
  if (keys.app_key.empty() || keys.hash_key.empty()) {
    throw SetupError("the app key and the hash key are needed: give --keys FILE, or --app-key and --hash-key");
  }
  return keys;
}

Attribution chooseAttribution(const std::string& option) {
  Attribution attribution;
  if (option.empty())
    return attribution;
  const bool is_json =
      option.find_first_not_of(" \t\n") != std::string::npos && option[option.find_first_not_of(" \t\n")] == '{';
  try {
    attribution.choose(is_json ? option : readSmallFile(option));
  } catch (const Refusal& refusal) {
    throw SetupError("--attribution: " + std::string(refusal.what()) + "; " + refusal.fix());
  }
  return attribution;
}

AnswerData chooseAnswerData(const Options& options) {
  return {chooseAttribution(options.attribution),
          options.schedule_file.empty() ? Schedule() : Schedule(options.schedule_file),
          options.premium_postback == "yes"};
}

void requireAllowedAddress(const Options& options) {
  if (!options.allow_remote && !isLoopbackAddress(options.bind_address)) {
    throw SetupError("--bind " + options.bind_address +
                     " can be reached from other machines; add --allow-remote if "
                     "that is meant, or bind 127.0.0.1");
  }
}

TlsIdentity readIdentity(const Options& options, std::ostream& errors) {
  if (options.make_certificates_in.empty()) {
    return {readSmallFile(options.certificate_file), readSmallFile(options.key_file)};
  }
  const CertificateFiles files = makeCertificates(options.make_certificates_in);
  if (!files.why_replaced.empty()) {
    errors << "morvik-service: " << files.authority << " " << files.why_replaced
           << ", so there is a new authority; give this file to the clients again" << std::endl;
  }
  return {readSmallFile(files.certificate), readSmallFile(files.key)};
}

// Destination of request lines. Called by one thread at a time.
Service::LineSink makeLineSink(const Options& options, std::ostream& errors) {
  if (options.quiet)
    return [](const std::string&) {};
  if (options.log_file.empty())
    return [&errors](const std::string& line) { errors << line << std::endl; };
  auto file = std::make_shared<std::ofstream>(options.log_file, std::ios::app);
  if (!*file)
    throw SetupError("cannot append to " + options.log_file + "; choose another file with --log");
  return [file](const std::string& line) { *file << line << std::endl; };
}

void announce(const Options& options, const std::string& url, std::uint16_t port, std::ostream& output) {
  if (!options.port_file.empty())
    replaceFile(options.port_file, std::to_string(port) + "\n", kPublicMode);
  if (!options.make_certificates_in.empty())
    replaceFile(options.make_certificates_in + "/" + kUrlFileName, url + "\n", kPublicMode);
  output << jsonText({{"listening", url}}) << std::endl;
}

void serve(const Options& options, const Surroundings& surroundings) {
  requireAllowedAddress(options);
  const Keys keys = collectKeys(options);
  AnswerData data = chooseAnswerData(options);
  Service::LineSink write_line = makeLineSink(options, surroundings.errors);
  Store store(options.store_folder, options.keep_mib * kBytesOfMib);
  Service service(keys, std::move(data), store, systemTimeMilliseconds, std::move(write_line),
                  AdminRules{options.inspect_hosts});
  Listener listener(options.bind_address, options.port);
  const std::string url = listener.url();
  const std::uint16_t port = listener.port();
  const HttpServer server(listener, readIdentity(options, surroundings.errors),
                          [&service](const HttpRequest& request) { return service.handle(request); });
  announce(options, url, port, surroundings.output);
  surroundings.wait_for_stop();
}

int runService(const Options& options, const Surroundings& surroundings) {
  try {
    serve(options, surroundings);
    return 0;
  } catch (const SetupError& error) {
    surroundings.errors << "morvik-service: " << error.what() << std::endl;
    return kExitUsage;
  }
}

morvik_command_line::Subcommand serveCommand(const Surroundings& surroundings) {
  return {"serve",
          "Runs the service: it takes what a device sends over TLS, decodes it, shows it, and misbehaves on request.",
          [&surroundings](CLI::App& app) {
            return [options = describeServeOptions(app), &surroundings] { return runService(*options, surroundings); };
          }};
}

}  // namespace

int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings) {
  const morvik_command_line::CommandLine command_line(
      "morvik-service", std::string(morvik::kVersion), "A tracking service on this machine, to test against.",
      {serveCommand(surroundings), expectCommand(surroundings.output, surroundings.errors)});
  const auto read = command_line.read(std::move(arguments));
  if (const auto* job = std::get_if<morvik_command_line::Job>(&read))
    return (*job)();
  const auto& printed = std::get<morvik_command_line::Printed>(read);
  (printed.exit_status == 0 ? surroundings.output : surroundings.errors) << printed.text << std::flush;
  return printed.exit_status;
}

}  // namespace morvik_service
