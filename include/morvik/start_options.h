// The options with which an app starts Morvik Core. Every field except the store folder and the three keys has a
// default.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvik {

/// One of the app's keys, and where it is kept. A key in a file or in the environment is read once, at the start. Do
/// not keep it on a command line or in a source file.
class Key {
 public:
  enum class Source { kUnset, kText, kFile, kEnvironment };

  /// Not set: the start fails and says which key is missing.
  Key() = default;
  /// The key itself. "" is a key that is set but empty (see StartOptions::tracking_key).
  Key(std::string text) : source_(Source::kText), text_(std::move(text)) {}  // NOLINT
  Key(const char* text) : Key(std::string(text)) {}                          // NOLINT
  /// The rest of the line "NAME=" of a text file ("tracking-key=…"). Other lines, and lines that begin with '#', are
  /// ignored; spaces at both ends are trimmed; if a name is repeated, its last line counts.
  static Key inFile(std::string path, std::string name) { return Key(Source::kFile, std::move(name), std::move(path)); }
  /// The value of an environment variable.
  static Key inEnvironment(std::string variable) { return Key(Source::kEnvironment, std::move(variable), ""); }

  Source source() const { return source_; }
  /// The key itself, the name in the file, or the variable.
  const std::string& text() const { return text_; }
  /// The file; "" for every other source.
  const std::string& path() const { return path_; }

 private:
  Key(Source source, std::string text, std::string path)
      : source_(source), text_(std::move(text)), path_(std::move(path)) {}
  Source source_ = Source::kUnset;
  std::string text_;
  std::string path_;
};

/// An identifier of the device, and its source.
class Identifier {
 public:
  enum class Source { kMadeAndKept, kGiven, kNone };

  /// Generated at the first start, kept in the store from then on.
  static Identifier madeAndKept() { return Identifier(Source::kMadeAndKept, ""); }
  /// This text, for this start.
  static Identifier given(std::string text) { return Identifier(Source::kGiven, std::move(text)); }
  /// None: the user limits tracking, or the app does not want one sent.
  static Identifier none() { return Identifier(Source::kNone, ""); }

  Source source() const { return source_; }
  const std::string& text() const { return text_; }

 private:
  Identifier(Source source, std::string text) : source_(source), text_(std::move(text)) {}
  Source source_;
  std::string text_;
};

/// What the app knows about the device and about itself. Texts are sent unchanged with every payload; "" if unknown.
struct DeviceDescription {
  std::string system_version = "15.0";  ///< below 10.0 no Search Ads details are requested and no install is attributed
  /// Advertising identifier. A given one is a UUID, 8-4-4-4-12 hexadecimal digits. Any other text counts as none, with
  /// a warning; so does the all-zero UUID, which a system returns when the user limits tracking.
  Identifier idfa = Identifier::madeAndKept();
  /// Identifier of the install, which lives only as long as the store: keyed hash (HMAC-SHA-256 with the app key) of an
  /// id generated once and kept. A given text is sent unchanged.
  Identifier puid = Identifier::madeAndKept();
  /// Screen orientation at the start: 1 portrait, 2 upside down, 3 and 4 landscape, 0 unknown. Any other number counts
  /// as unknown, with a warning.
  int orientation = 1;
  /// Whether the system lets the app run in the background; empty: the system does not say. Unless it is true, no
  /// session ever ends and no batch is sent at its end.
  std::optional<bool> multitasking = true;
  std::string model;
  std::string language;  ///< "en"
  std::string country;   ///< "US"
  std::string app_version_name;
  std::string app_version_code;
  std::string package_name;
  std::string carrier;
  /// URL schemes ("https") that something on the device opens. A crash report uses them to tell whether the device is
  /// jailbroken.
  std::vector<std::string> url_schemes;
};

/// The platform's advertising client, supplied by the app: three ways to ask who brought the install. An empty slot is
/// a way that is not offered. `AdClient{}` offers none, and then no install is ever attributed. Slots are called on the
/// main queue and must return at once; each calls its argument once, on any thread.
struct AdClient {
  using Time = std::chrono::system_clock::time_point;
  /// The details as JSON text (an object), if any, and an error text, if there was an error.
  using AttributionDetails =
      std::function<void(std::optional<std::string> details_json, std::optional<std::string> error)>;
  using ConversionDetails = std::function<void(std::optional<Time> app_purchase, std::optional<Time> iad_impression)>;
  using InstallationAttribution = std::function<void(bool attributed)>;

  std::function<void(AttributionDetails)> requestAttributionDetails;
  std::function<void(ConversionDetails)> lookupAdConversionDetails;
  std::function<void(InstallationAttribution)> determineAppInstallationAttribution;

  /// The default client: offers the first way and answers with neither details nor error, so that installs are
  /// attributed even without an advertising framework.
  static AdClient withoutDetails() {
    AdClient client;
    client.requestAttributionDetails = [](const AttributionDetails& answer) { answer(std::nullopt, std::nullopt); };
    return client;
  }
};

/// An optional module of the kit (tracking, push, ...) or the app's stand-in for one, registered under the class name
/// by which the kit looks for it. Every slot is optional: an empty one does not respond. All are called on the main
/// queue, except for getSDKVersion and for saveCommerceEventAndSend, which the end of a session calls on the background
/// queue. Exceptions from a slot are caught and logged.
struct Module {
  /// The version of the class for crash reports; empty if it has none. Called on any thread, also on one that is
  /// crashing: it must not wait for anything.
  std::function<std::optional<std::string>()> getSDKVersion;
  /// Commerce events are pending in the store ("Fendo").
  std::function<void()> saveCommerceEventAndSend;
  /// The user asked to be forgotten, or withdrew that ("QuintPush").
  std::function<void(bool enable)> setRemotePushEnable;
  /// A re-engagement URL opened the app; its query, with the first value of each key ("FendoLib").
  std::function<void(const std::map<std::string, std::string>& query)> resetRetainedConversionCache;
  /// A re-engagement was accepted ("FendoLib").
  std::function<void(int64_t conversion_key)> saveRetainedConversionKey;
  /// The campaign schedule, as JSON text ("Fendo").
  std::function<void(const std::string& schedule_json)> didGetSchedule;
};

/// How the main queue runs. All work, callbacks and timers of the kit run on it.
enum class MainQueueMode {
  kOwnThread,  ///< on the kit's own thread; the app need not do anything
  kPumped,     ///< on the thread that starts the kit, from the app's own loop: see MorvikCore::dispatch()
};

struct StartOptions {
  /// Folder of the store; created if missing, for this user only. Required. One process at a time. A path that names a
  /// file is an error. A relative path is resolved once, at the start.
  std::string store_folder;

  /// Identifies the app to the services. Required, not empty; letters, digits, hyphens, full stops, underscores and
  /// tildes.
  Key app_key;
  Key hash_key;  ///< Seals the requests that attribute the install. Required, not empty.
  /// Seals sessions and events. Required; it may be empty, and then none of these is ever sent.
  Key tracking_key;

  /// Base URL of all endpoints; "": each has its default, a reserved name that reaches nobody (with a warning if all
  /// do). A missing slash at the end is added. https, or http to this machine itself.
  std::string service_url;
  /// Base URLs of single endpoints, by the name of their constant; they override `service_url`:
  /// kFendoTrackingBaseLiveUrl, kFendoConversionBaseLiveUrl, kFendoCampaignBaseLiveUrl, kCommerceBaseLiveUrl,
  /// kCrashReportBaseLiveUrl, kGdprReqUrl, KAppConfigBaseLiveUrl.
  std::map<std::string, std::string> endpoints;
  /// File of certificates (PEM) to trust instead of the system's; "": the system's. It must exist at the start, and is
  /// read at the first upload.
  std::string ca_file;

  /// 0 off, 1 critical, 2 error, 3 warning, 4 info, 5 debug, 6 trace.
  int log_level = 2;
  /// Receives the log, one message per call, without a line feed at its end; a message may contain line breaks. Empty:
  /// standard error. Called on any thread, one call at a time; must not call the kit nor throw. The text is valid
  /// during the call. Lines about what the app records, hands over or posts come from the main queue, after the call
  /// that caused them. Not called in a forked child, whose only line goes to standard error.
  std::function<void(std::string_view line)> log_sink;

  DeviceDescription device;
  AdClient ad_client = AdClient::withoutDetails();
  /// Whether uncaught exceptions and fatal signals of the process become crash reports, if they concern the kit. Off by
  /// default, since such handlers affect the whole process. See docs/crash.md.
  bool report_crashes = false;
  std::map<std::string, Module> modules;  ///< by class name
  /// A URL that opened the app before the kit was started; "": none. Kept in the store and handled at the end of the
  /// next session start. Later URLs go to MorvikCore::passOpenURL().
  std::string opened_url;
  MainQueueMode main_queue = MainQueueMode::kOwnThread;
  /// Whether anything may be sent from the start on; false, for example, until the user has consented. Everything is
  /// recorded in either case. See MorvikCore::setSendingEnabled().
  bool sending = true;
  /// Whether the environment may change log level, log file and service, for debugging. It is read once, at the start:
  /// MORVIK_LOG_LEVEL; MORVIK_LOG_FILE, to which lines are appended instead of passing them to `log_sink`;
  /// MORVIK_SERVICE_URL, instead of `service_url` and `endpoints`. A log line says what was changed. Empty variables
  /// change nothing, and invalid ones make the start fail. Not for release builds: whoever can set a variable could
  /// send the app's events elsewhere.
  bool allow_environment = false;
};

}  // namespace morvik
