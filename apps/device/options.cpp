#include "apps/device/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <utility>

#include "apps/device/ad_answers.h"
#include "apps/device/verbs.h"
#include "morvik/version.h"
#include "services/uuid.h"

namespace morvik_device {
namespace {

// As written, before it becomes what the host wants.
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
  app.add_option("--service", options.start.service_url, "base URL of all endpoints");
  app.add_option("--endpoint", written.endpoints, "NAME=URL: base URL of one endpoint, by its constant's name")
      ->type_size(1)
      ->allow_extra_args(false);
  app.add_option("--ca", options.start.ca_file, "PEM file of certificates to trust in place of the system's");
  app.add_option("--app-key", written.app_key, "the app's key");
  app.add_option("--hash-key", written.hash_key, "the app's hash key");
  app.add_option("--tracking-key", written.tracking_key, "the app's tracking key; \"\" sends no sessions and events");
  app.add_option("--keys", written.keys_file, "file with the keys; an option wins over it");
}

void describeDevice(CLI::App& app, Options& options, Written& written) {
  morvik::DeviceDescription& device = options.start.device;
  app.add_option("--system-version", device.system_version, "version of the device's system")->capture_default_str();
  app.add_option("--idfa", written.idfa, "advertising identifier, a UUID, or none; else one is made and kept");
  app.add_option("--puid", written.puid, "persistent identifier as it is sent, or none; else one is made and kept");
  app.add_flag("--no-multitasking", written.no_multitasking, "the system does not let the app run in the background");
  app.add_option("--orientation", device.orientation, "of the screen: 1 portrait, 2 upside down, 3 and 4 landscape")
      ->check(CLI::Range(kLeastOrientation, kMostOrientation))
      ->capture_default_str();
  app.add_option("--search-ads", written.search_ads, "absent, none, error, error:JSON or JSON")->capture_default_str();
  app.add_option("--module", written.modules, "NAME[=VERSION]: registers an optional module; its calls are printed")
      ->type_size(1)
      ->allow_extra_args(false);
  app.add_option("--iad", written.iad, "none, lookup:PURCHASE,IMPRESSION, determine:yes or determine:no")
      ->capture_default_str();
}

void describeRest(CLI::App& app, Options& options, Written& written) {
  app.add_option("--store", options.start.store_folder, "folder of the store; made when missing");
  app.add_option("--script", options.script, "file with the verbs, in place of standard input");
  app.add_flag("--report-ledger", options.report_ledger,
               "tells the service behind --service after each verb what became of all that was recorded, for its page");
  app.add_flag("--no-sending", written.no_sending,
               "starts with sending off, as an app does until its user has consented: see the verb sending");
  app.add_flag("--allow-environment", options.start.allow_environment,
               "lets MORVIK_LOG_LEVEL, MORVIK_LOG_FILE and MORVIK_SERVICE_URL win over what is said here");
  app.add_option("--log-level", options.start.log_level, "0 off to 6 trace")
      ->check(CLI::Range(0, kMostLogLevel))
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
  return "--store is required; give the folder in which the device keeps its data, it is made when missing";
}

Mistake needService(const Options& options) {
  if (!options.start.service_url.empty() || !options.start.endpoints.empty())
    return std::nullopt;
  return "--service is required; give the base URL of the service, or single ones with --endpoint NAME=URL";
}

Mistake needServiceToReport(const Options& options) {
  if (!options.report_ledger || !options.start.service_url.empty())
    return std::nullopt;
  return "--report-ledger needs --service; give the base URL of the morvik-service that is to be told";
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

Mistake takeKeys(const Written& written, morvik::StartOptions& host) {
  if (auto mistake = takeKey(written.app_key, "app-key", written.keys_file, host.app_key))
    return mistake;
  if (auto mistake = takeKey(written.hash_key, "hash-key", written.keys_file, host.hash_key))
    return mistake;
  return takeKey(written.tracking_key, "tracking-key", written.keys_file, host.tracking_key);
}

Mistake takeEndpoints(const Written& written, morvik::StartOptions& host) {
  for (const std::string& text : written.endpoints) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
      return "--endpoint " + text + " has no URL; write --endpoint NAME=URL";
    host.endpoints[text.substr(0, equals)] = text.substr(equals + 1);
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
             "\" is no UUID; write one like 6d92078a-8246-4ba4-ae5b-76104861e7dc, or none";
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

CommandLine unusable(std::string problem) {
  std::replace(problem.begin(), problem.end(), '\n', ' ');
  return {std::nullopt, "morvik-device: " + problem + "; see morvik-device --help\n", kExitUsage};
}

// "--name=" is the option with an empty value; the parser would take the next argument for the value.
std::vector<std::string> withEmptyValues(const std::vector<std::string>& arguments) {
  std::vector<std::string> all;
  for (const std::string& argument : arguments) {
    const bool has_empty_value = argument.substr(0, 2) == "--" && argument.find('=') == argument.size() - 1;
    all.push_back(has_empty_value ? argument.substr(0, argument.size() - 1) : argument);
    if (has_empty_value)
      all.emplace_back();
  }
  return all;
}

std::string footer() {
  return "Keys on a command line can be read by others; prefer --keys, a file with the lines app-key=..., "
         "hash-key=... and tracking-key=....\n"
         "Verbs, one a line; words with blanks stand in double quotes, JSON is the rest of the line:\n" +
         verbsHelp() +
         "On a terminal there is a prompt, help [VERB] tells this again, and a mistake is told and forgiven; in a file or "
         "a pipe it ends the program.\n"
         "Other modes: --fleet N lives N devices in virtual time and balances their account (see --fleet 1 --help);\n"
         "--simulate FILE plays a scenario in virtual time (see --simulate FILE --help);\n"
         "inspect STORE_DIR prints what waits in a store, also beside an app that holds it (see inspect --help).\n"
         "A line of JSON on standard output answers each verb and tells each call of a delegate; the log goes to "
         "standard error.";
}

}  // namespace

CommandLine readCommandLine(std::vector<std::string> arguments) {
  Options options;
  Written written;
  CLI::App app("A device with an app on it that does what it is told, verb by verb.", "morvik-device");
  app.footer(footer());
  app.set_version_flag("--version", "morvik-device " + std::string(morvik::kVersion));
  describeRest(app, options, written);
  describeServices(app, options, written);
  describeDevice(app, options, written);
  arguments = withEmptyValues(arguments);
  std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
  try {
    app.parse(arguments);
  } catch (const CLI::CallForHelp&) {
    return {std::nullopt, app.help(), 0};
  } catch (const CLI::CallForVersion& version) {
    return {std::nullopt, std::string(version.what()) + "\n", 0};
  } catch (const CLI::ParseError& error) {
    return unusable(error.what());
  }
  if (const Mistake mistake = complete(options, written))
    return unusable(*mistake);
  return {std::move(options), "", 0};
}

}  // namespace morvik_device
