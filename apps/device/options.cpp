#include "apps/device/options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <utility>

#include "apps/device/ad_answers.h"
#include "services/uuid.h"

namespace morvik_device {
namespace {

// As written on the command line.
struct Written {
  std::optional<std::string> app_key;
  std::optional<std::string> hash_key;
  std::optional<std::string> tracking_key;
  std::string keys_file;
  std::vector<std::string> endpoints;
  std::vector<std::string> modules;
  std::string search_ads = "none";
  std::string iad = "none";
  std::optional<std::string> idfa;
  std::optional<std::string> puid;
  bool no_multitasking = false;
  bool no_sending = false;
};

using Mistake = std::optional<std::string>;

constexpr int kMostLogLevel = 6;
constexpr int kLeastOrientation = 1;
constexpr int kMostOrientation = 4;

void describeServices(CLI::App& app, Options& options, Written& written) {
  app.add_option("--service", options.start.service_url, "base URL of all endpoints")->type_name("URL");
  app.add_option("--endpoint", written.endpoints, "base URL of one endpoint, by its constant's name; may be repeated")
      ->type_size(1)
      ->allow_extra_args(false)
      ->type_name("NAME=URL");
  app.add_option("--ca", options.start.ca_file, "PEM file of the certificates to trust instead of the system's")
      ->type_name("FILE");
  app.add_option("--app-key", written.app_key, "the app's key");
  app.add_option("--hash-key", written.hash_key, "the app's hash key");
  app.add_option("--tracking-key", written.tracking_key,
                 "the app's tracking key; with \"\" sessions and events are not sent");
  app.add_option("--keys", written.keys_file, "file with the keys; the options above override it")->type_name("FILE");
}

void describeDevice(CLI::App& app, Options& options, Written& written) {
  morvik::DeviceDescription& device = options.start.device;
  app.add_option("--system-version", device.system_version, "version of the device's system")->capture_default_str();
  app.add_option("--idfa", written.idfa, "advertising identifier; generated and kept if not given")
      ->type_name("none|UUID");
  app.add_option("--puid", written.puid, "persistent identifier, sent as is; generated and kept if not given")
      ->type_name("none|TEXT");
  app.add_flag("--no-multitasking", written.no_multitasking, "the system does not let the app run in the background");
  app.add_option("--orientation", device.orientation, "of the screen: 1 portrait, 2 upside down, 3 and 4 landscape")
      ->check(CLI::Range(kLeastOrientation, kMostOrientation).description(""))
      ->type_name("1|2|3|4")
      ->capture_default_str();
  app.add_option("--search-ads", written.search_ads, "what the advertising client answers about search ads")
      ->type_name("absent|none|error|error:JSON|JSON")
      ->capture_default_str();
  app.add_option("--iad", written.iad, "what the advertising client answers about the install")
      ->type_name("none|lookup:PURCHASE,IMPRESSION|determine:yes|determine:no")
      ->capture_default_str();
  app.add_option("--module", written.modules, "registers an optional module and prints its calls; may be repeated")
      ->type_size(1)
      ->allow_extra_args(false)
      ->type_name("NAME[=VERSION]");
}

void describeRest(CLI::App& app, Options& options, Written& written) {
  app.add_option("--store", options.start.store_folder, "folder of the store; created if missing")->type_name("FOLDER");
  app.add_option("--script", options.script, "file with the verbs; without it they are read from standard input")
      ->type_name("FILE");
  app.add_flag("--report-ledger", options.report_ledger,
               "reports the ledger to the service given with --service after each verb, for its page");
  app.add_flag("--no-sending", written.no_sending,
               "starts with sending off, as an app does before its user consents; see the verb sending");
  app.add_flag("--allow-environment", options.start.allow_environment,
               "lets MORVIK_LOG_LEVEL, MORVIK_LOG_FILE and MORVIK_SERVICE_URL override these options");
  app.add_option("--log-level", options.start.log_level, "0 is off, 6 is trace")
      ->check(CLI::Range(0, kMostLogLevel).description(""))
      ->type_name("0|1|2|3|4|5|6")
      ->capture_default_str();
}

Mistake needFile(const std::string& path, const std::string& option) {
  std::error_code ignored;
  if (path.empty() || std::filesystem::is_regular_file(path, ignored))
    return std::nullopt;
  return option + ": there is no file " + path + "; name one that exists";
}

Mistake needStore(const Options& options) {
  if (!options.start.store_folder.empty())
    return std::nullopt;
  return "--store is required; give the folder for the device's data, which is created if missing";
}

Mistake needService(const Options& options) {
  if (!options.start.service_url.empty() || !options.start.endpoints.empty())
    return std::nullopt;
  return "--service is required; give the base URL of the service, or of single endpoints with --endpoint NAME=URL";
}

Mistake needServiceToReport(const Options& options) {
  if (!options.report_ledger || !options.start.service_url.empty())
    return std::nullopt;
  return "--report-ledger needs --service; give the base URL of the morvik-service that gets the reports";
}

Mistake takeKey(const std::optional<std::string>& given, const std::string& name, const std::string& keys_file,
                morvik::Key& key) {
  if (given) {
    key = morvik::Key(*given);
  } else if (!keys_file.empty()) {
    key = morvik::Key::inFile(keys_file, name);
  } else {
    return "--" + name + " is required; give it, or a file with the line " + name + "=... with --keys";
  }
  return std::nullopt;
}

Mistake takeKeys(const Written& written, morvik::StartOptions& start) {
  if (auto mistake = takeKey(written.app_key, "app-key", written.keys_file, start.app_key))
    return mistake;
  if (auto mistake = takeKey(written.hash_key, "hash-key", written.keys_file, start.hash_key))
    return mistake;
  return takeKey(written.tracking_key, "tracking-key", written.keys_file, start.tracking_key);
}

Mistake takeEndpoints(const Written& written, morvik::StartOptions& start) {
  for (const std::string& text : written.endpoints) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
      return "--endpoint " + text + " has no URL; write --endpoint NAME=URL";
    start.endpoints[text.substr(0, equals)] = text.substr(equals + 1);
  }
  return std::nullopt;
}

Mistake takeModules(const Written& written, ModuleNames& modules) {
  for (const std::string& text : written.modules) {
    const size_t equals = text.find('=');
    if (equals == 0 || text.empty())
      return "--module " + text + " has no name; write --module NAME or --module NAME=VERSION";
    std::optional<std::string>& version = modules[text.substr(0, equals)];
    if (equals != std::string::npos)
      version = text.substr(equals + 1);
  }
  return std::nullopt;
}

morvik::Identifier identifier(const std::string& text) {
  return text == "none" ? morvik::Identifier::none() : morvik::Identifier::given(text);
}

Mistake takeIdentifiers(const Written& written, morvik::DeviceDescription& device) {
  if (written.idfa) {
    if (*written.idfa != "none" && !morvik::services::isUuid(*written.idfa)) {
      return "--idfa: \"" + *written.idfa +
             "\" is not a UUID; write one like 6d92078a-8246-4ba4-ae5b-76104861e7dc, or none";
    }
    device.idfa = identifier(*written.idfa);
  }
  if (written.puid)
    device.puid = identifier(*written.puid);
  return std::nullopt;
}

Mistake takeAdClient(const Written& written, morvik::AdClient& client) {
  if (auto mistake = chooseSearchAds(written.search_ads, client))
    return "--search-ads: " + *mistake;
  if (auto mistake = chooseIad(written.iad, client))
    return "--iad: " + *mistake;
  return std::nullopt;
}

Mistake complete(Options& options, const Written& written) {
  if (written.no_multitasking)
    options.start.device.multitasking = false;
  options.start.sending = !written.no_sending;
  if (auto mistake = needStore(options))
    return mistake;
  if (auto mistake = takeEndpoints(written, options.start))
    return mistake;
  if (auto mistake = needService(options))
    return mistake;
  if (auto mistake = needServiceToReport(options))
    return mistake;
  if (auto mistake = needFile(written.keys_file, "--keys"))
    return mistake;
  if (auto mistake = takeKeys(written, options.start))
    return mistake;
  if (auto mistake = needFile(options.start.ca_file, "--ca"))
    return mistake;
  if (auto mistake = needFile(options.script, "--script"))
    return mistake;
  if (auto mistake = takeIdentifiers(written, options.start.device))
    return mistake;
  if (auto mistake = takeModules(written, options.modules))
    return mistake;
  return takeAdClient(written, options.start.ad_client);
}

constexpr const char* kFooter =
    "Reads verbs, one per line; \"morvik-device verbs\" lists them. On a terminal there is a prompt, \"help\" lists "
    "them too, and after a mistake the next line is read; in a file or a pipe a mistake ends the program.\n"
    "Each verb, and each call of a delegate, is answered with one line of JSON on standard output; the log goes to "
    "standard error.\n"
    "Other users can read keys on a command line. Better give --keys a file with the lines app-key=..., hash-key=... "
    "and tracking-key=....";

}  // namespace

std::shared_ptr<const Options> describeRunOptions(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  const auto written = std::make_shared<Written>();
  app.footer(kFooter);
  describeRest(app, *options, *written);
  describeServices(app, *options, *written);
  describeDevice(app, *options, *written);
  app.callback([options, written] {
    if (const Mistake mistake = complete(*options, *written))
      throw morvik_command_line::UsageError(*mistake);
  });
  return options;
}

std::variant<Options, std::string> readOptions(const std::vector<std::string>& arguments) {
  CLI::App app;
  const std::shared_ptr<const Options> options = describeRunOptions(app);
  if (auto mistake = morvik_command_line::tryParse(app, arguments))
    return *std::move(mistake);
  return *options;
}

}  // namespace morvik_device
