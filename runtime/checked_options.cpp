#include "runtime/checked_options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>

#include "services/text_codes.h"
#include "services/url_query.h"
#include "services/uuid.h"

namespace morvik::runtime {
namespace {

using Failure = std::optional<kit::Error>;

struct EndpointName {
  const char* name;
  std::string kit::Endpoints::*member;
};

constexpr std::array<EndpointName, 7> kEndpoints = {{
    {"kFendoTrackingBaseLiveUrl", &kit::Endpoints::kFendoTrackingBaseLiveUrl},
    {"kFendoConversionBaseLiveUrl", &kit::Endpoints::kFendoConversionBaseLiveUrl},
    {"kFendoCampaignBaseLiveUrl", &kit::Endpoints::kFendoCampaignBaseLiveUrl},
    {"kCommerceBaseLiveUrl", &kit::Endpoints::kCommerceBaseLiveUrl},
    {"kCrashReportBaseLiveUrl", &kit::Endpoints::kCrashReportBaseLiveUrl},
    {"kGdprReqUrl", &kit::Endpoints::kGdprReqUrl},
    {"KAppConfigBaseLiveUrl", &kit::Endpoints::KAppConfigBaseLiveUrl},
}};

constexpr int kLowestLogLevel = 0;
constexpr int kHighestLogLevel = 6;
constexpr int kUnknownOrientation = 0;
constexpr int kHighestOrientation = 4;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::string> lineOf(std::string_view text, std::string_view name) {
  std::optional<std::string> found;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    const size_t equals = line.find('=');
    if (equals != std::string_view::npos && trimmed(line.substr(0, equals)) == name)
      found = std::string(trimmed(line.substr(equals + 1)));
  }
  return found;
}

Failure readKeyInFile(const Key& key, const MachineInputs& inputs, const std::string& option, std::string& out) {
  const std::optional<std::string> text = inputs.readFile(key.path(), kMaxKeyFileBytes);
  if (!text) {
    return kit::Error{option + ": the file " + key.path() + " cannot be read, or is larger than " +
                      std::to_string(kMaxKeyFileBytes) + " bytes; fix its path or its permissions."};
  }
  const std::optional<std::string> line = lineOf(*text, key.text());
  if (!line)
    return kit::Error{option + ": the file " + key.path() + " has no line \"" + key.text() + "=…\"; add it."};
  out = *line;
  return std::nullopt;
}

Failure readKeyInEnvironment(const Key& key, const MachineInputs& inputs, const std::string& option, std::string& out) {
  const std::optional<std::string> value = inputs.variable(key.text());
  if (!value)
    return kit::Error{option + ": the environment has no variable " + key.text() + "; set it."};
  out = *value;
  return std::nullopt;
}

Failure readKey(const Key& key, const MachineInputs& inputs, const std::string& option, std::string& out) {
  switch (key.source()) {
    case Key::Source::kFile:
      return readKeyInFile(key, inputs, option, out);
    case Key::Source::kEnvironment:
      return readKeyInEnvironment(key, inputs, option, out);
    case Key::Source::kText:
      out = key.text();
      return std::nullopt;
    case Key::Source::kUnset:
      break;
  }
  return kit::Error{option + " is not set; set it to the key that the service gave this app."};
}

Failure readNonEmptyKey(const Key& key, const MachineInputs& inputs, const std::string& option, std::string& out) {
  if (Failure failure = readKey(key, inputs, option, out))
    return failure;
  if (out.empty())
    return kit::Error{option + " is empty; set it to the key that the service gave this app."};
  return std::nullopt;
}

Failure readBaseUrl(const std::string& text, const MachineInputs& inputs, const std::string& option, std::string& out,
                    bool& is_loopback) {
  out = text;
  if (!out.ends_with('/'))
    out += '/';
  const auto facts = inputs.checkUrl(out);
  if (const auto* error = std::get_if<kit::Error>(&facts))
    return kit::Error{option + ": " + text.c_str() + " cannot be used: " + error->message + "."};
  if (services::withoutQuery(out) != out)
    return kit::Error{option + ": " + text + " has a query or a fragment; paths are added to it, so leave those out."};
  is_loopback = is_loopback || std::get<UrlFacts>(facts).is_loopback;
  return std::nullopt;
}

/// The environment's service replaces every URL that the app names: nothing goes elsewhere while somebody debugs.
Failure readAllUrls(const StartOptions& options, const MachineInputs& inputs, CheckedOptions& out) {
  for (const EndpointName& endpoint : kEndpoints) {
    if (const std::string& debugged = out.environment.service_url; !debugged.empty()) {
      if (Failure failure = readBaseUrl(debugged, inputs, kServiceUrlVariable, out.endpoints.*endpoint.member,
                                        out.has_loopback_endpoint))
        return failure;
      continue;
    }
    const auto own = options.endpoints.find(endpoint.name);
    const bool has_own = own != options.endpoints.end();
    if (!has_own && options.service_url.empty())
      continue;
    const std::string option =
        has_own ? std::string("StartOptions::endpoints ") + endpoint.name : "StartOptions::service_url";
    if (Failure failure = readBaseUrl(has_own ? own->second : options.service_url, inputs, option,
                                      out.endpoints.*endpoint.member, out.has_loopback_endpoint))
      return failure;
  }
  return std::nullopt;
}

Failure checkEndpointNames(const StartOptions& options) {
  for (const auto& [name, url] : options.endpoints) {
    std::string known;
    bool is_known = false;
    for (const EndpointName& endpoint : kEndpoints) {
      is_known = is_known || name == endpoint.name;
      known += known.empty() ? "" : ", ";
      known += endpoint.name;
    }
    if (!is_known)
      return kit::Error{"StartOptions::endpoints: there is no endpoint " + name + "; there are " + known + "."};
  }
  return std::nullopt;
}

Failure readLogLevel(const std::string& text, int& out) {
  if (text.empty())
    return std::nullopt;
  int level = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, level);
  if (error != std::errc() || stopped != end || level < kLowestLogLevel || level > kHighestLogLevel)
    return kit::Error{std::string(kLogLevelVariable) + " is \"" + text + "\"; choose 0 (off) to 6 (trace)."};
  out = level;
  return std::nullopt;
}

/// The path of the app's configuration begins with its key.
bool mayStandInAPath(const std::string& app_key) {
  std::string encoded;
  services::appendPercentEncoded(app_key, encoded);
  return encoded == app_key;
}

/// No warning about an identifier of zeros alone: a system returns it when the user limits tracking.
void checkAdvertisingIdentifier(CheckedOptions& out) {
  Identifier& idfa = out.options.device.idfa;
  if (idfa.source() != Identifier::Source::kGiven)
    return;
  const bool is_uuid = services::isUuid(idfa.text());
  if (!is_uuid) {
    out.warnings.push_back("DeviceDescription::idfa is not a UUID (" + std::to_string(idfa.text().size()) +
                           " bytes) and counts as none; give it as 8-4-4-4-12 hexadecimal digits, or say "
                           "Identifier::none()");
  }
  if (!is_uuid || idfa.text().find_first_not_of("0-") == std::string::npos)
    idfa = Identifier::none();
}

void checkOrientation(CheckedOptions& out) {
  const int orientation = out.options.device.orientation;
  if (orientation >= kUnknownOrientation && orientation <= kHighestOrientation)
    return;
  out.warnings.push_back("DeviceDescription::orientation is " + std::to_string(orientation) +
                         " and counts as unknown; give 1 to 4, or 0 when it is not known");
}

void checkThatSomethingCanArrive(CheckedOptions& out) {
  const kit::Endpoints defaults;
  const bool is_any_set = std::any_of(kEndpoints.begin(), kEndpoints.end(), [&](const EndpointName& endpoint) {
    return out.endpoints.*endpoint.member != defaults.*endpoint.member;
  });
  if (!is_any_set) {
    out.warnings.emplace_back(
        "nothing will arrive: all endpoints are the defaults under morvik.example, which are reserved and reach "
        "nobody; set StartOptions::service_url to the base URL of your service");
  }
}

Failure check(const StartOptions& options, const MachineInputs& inputs, CheckedOptions& out) {
  if (options.store_folder.empty())
    return kit::Error{"StartOptions::store_folder is not set; name a folder that the app may write to."};
  if (options.store_folder.find('\0') != options.store_folder.npos) {
    return kit::Error{"StartOptions::store_folder holds a zero byte, behind \"" +
                      options.store_folder.substr(0, options.store_folder.find('\0')) +
                      "\", where the system ends a path; name a folder without one."};
  }
  if (options.log_level < kLowestLogLevel || options.log_level > kHighestLogLevel) {
    return kit::Error{"StartOptions::log_level is " + std::to_string(options.log_level) +
                      "; choose 0 (off) to 6 (trace)."};
  }
  if (Failure failure = readLogLevel(out.environment.log_level, out.options.log_level))
    return failure;
  if (Failure failure = readNonEmptyKey(options.app_key, inputs, "StartOptions::app_key", out.app_key))
    return failure;
  if (!mayStandInAPath(out.app_key)) {
    return kit::Error{
        "StartOptions::app_key holds a character that cannot stand in a URL; set it to the key that the "
        "service gave this app, made of letters, digits, '-', '.', '_' and '~'."};
  }
  if (Failure failure = readNonEmptyKey(options.hash_key, inputs, "StartOptions::hash_key", out.hash_key))
    return failure;
  if (Failure failure = readKey(options.tracking_key, inputs, "StartOptions::tracking_key", out.tracking_key))
    return failure;
  if (Failure failure = checkEndpointNames(options))
    return failure;
  return readAllUrls(options, inputs, out);
}

}  // namespace

std::variant<CheckedOptions, kit::Error> checkOptions(const StartOptions& options, const MachineInputs& inputs) {
  CheckedOptions checked;
  checked.options = options;
  if (options.allow_environment)
    checked.environment = readDebugEnvironment(inputs);
  if (Failure failure = check(options, inputs, checked))
    return *std::move(failure);
  checkThatSomethingCanArrive(checked);
  checkOrientation(checked);
  checkAdvertisingIdentifier(checked);
  return checked;
}

}  // namespace morvik::runtime
