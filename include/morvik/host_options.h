// What an app tells Morvik Core when it starts it. Every field has a default but the store folder and the three keys.
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

/// One of the app's keys, and where it is kept. A key in a file or in the environment is read once, at the start; a
/// command line or a source file is no place for it.
class Key {
 public:
  enum class Source { kUnset, kText, kFile, kEnvironment };

  /// Not set: the start refuses it and says which key is missing.
  Key() = default;
  /// The key itself. "" is a key that is set and empty (see HostOptions::tracking_key).
  Key(std::string text) : source_(Source::kText), text_(std::move(text)) {}  // NOLINT
  Key(const char* text) : Key(std::string(text)) {}                          // NOLINT
  /// The rest of the line "NAME=" of a text file ("tracking-key=…"). Other lines, and lines that begin with '#', are of
  /// no matter; blanks at both ends are cut; of a repeated name the last line counts.
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

/// An identifier of the device, and where it comes from.
class Identifier {
 public:
  enum class Source { kMadeAndKept, kGiven, kNone };

  /// Made at the first start, kept in the store from then on.
  static Identifier madeAndKept() { return Identifier(Source::kMadeAndKept, ""); }
  /// This text, at this start.
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

/// What the app knows about the device and about itself. Text goes out with every payload as it stands; "" where
/// unknown.
struct DeviceDescription {
  std::string system_version =
      "15.0";  ///< below 10.0 nothing asks for Search Ads details, and no install is attributed
  /// Advertising identifier. A given one is a UUID, 8-4-4-4-12 hexadecimal digits; any other text counts as none, with
  /// a warning, and so does the one of zeros alone, which a system gives when the user limits tracking.
  Identifier idfa = Identifier::madeAndKept();
  /// Identifier of the install that survives nothing but the store: keyed hash (HMAC-SHA-256 with the app key) of an id
  /// made once and kept; a given text goes out as it is.
  Identifier puid = Identifier::madeAndKept();
  /// Of the screen at start: 1 portrait, 2 upside down, 3 and 4 landscape, 0 unknown. Any other number counts as
  /// unknown, with a warning.
  int orientation = 1;
  /// Whether the system lets the app run in the background; nothing: it does not say. Without it no session ever ends
  /// and no batch leaves at its end.
  std::optional<bool> multitasking = true;
  std::string model;
  std::string language;  ///< "en"
  std::string country;   ///< "US"
  std::string app_version_name;
  std::string app_version_code;
  std::string package_name;
  std::string carrier;
  /// Schemes of URLs ("https") that something on the device opens. A crash report tells from it whether the device was
  /// broken into.
  std::vector<std::string> url_schemes;
};

/// The platform's advertising client as an app plugs its own in: three ways to ask who brought the install. An empty
/// slot is a way that is not offered; `AdClient{}` offers none, and then, by the rules, no install is ever attributed.
/// Slots are called on the main queue and return at once; each calls what it is handed once, on any thread.
struct AdClient {
  using Time = std::chrono::system_clock::time_point;
  /// The details as JSON text (an object), if there are any, and the text of an error, if there was one.
  using AttributionDetails =
      std::function<void(std::optional<std::string> details_json, std::optional<std::string> error)>;
  using ConversionDetails = std::function<void(std::optional<Time> app_purchase, std::optional<Time> iad_impression)>;
  using InstallationAttribution = std::function<void(bool attributed)>;

  std::function<void(AttributionDetails)> requestAttributionDetails;
  std::function<void(ConversionDetails)> lookupAdConversionDetails;
  std::function<void(InstallationAttribution)> determineAppInstallationAttribution;

  /// The client that ships: offers the first way and answers it with neither details nor error, so that installs are
  /// attributed where there is no advertising framework.
  static AdClient withoutDetails() {
    AdClient client;
    client.requestAttributionDetails = [](const AttributionDetails& answer) { answer(std::nullopt, std::nullopt); };
    return client;
  }
};

/// An optional module of the kit (tracking, push, ...) or the app's stand-in for one, registered under the class name
/// by which the kit looks for it. Every slot is optional: an empty one does not respond. All are called on the main
/// queue, but for saveCommerceEventAndSend, which a session's end calls on the background queue, and getSDKVersion.
/// What a slot throws is caught and logged.
struct Module {
  /// The version of the class, as it stands in crash reports; nothing where it has none to tell. Called on any thread,
  /// also one that is about to die: it must not wait for anything.
  std::function<std::optional<std::string>()> getSDKVersion;
  /// Commerce events wait in the store ("Fendo").
  std::function<void()> saveCommerceEventAndSend;
  /// The user asked to be forgotten, or took that back ("QuintPush").
  std::function<void(bool enable)> setRemotePushEnable;
  /// A re-engagement URL opened the app; its query, each key's first value ("FendoLib").
  std::function<void(const std::map<std::string, std::string>& query)> resetRetainedConversionCache;
  /// A re-engagement was accepted ("FendoLib").
  std::function<void(int64_t conversion_key)> saveRetainedConversionKey;
  /// The campaign schedule, as JSON text ("Fendo").
  std::function<void(const std::string& schedule_json)> didGetSchedule;
};

/// How the main queue runs, on which all work, all callbacks and all timers of the kit take place.
enum class MainQueueMode {
  kOwnThread,  ///< on a thread of the kit's own; the app does nothing
  kPumped,     ///< on the thread that starts the kit, from the app's own loop: see MorvikCore::dispatch()
};

struct HostOptions {
  /// Folder of the store; made (for this user alone) when it is missing. Required. One process at a time. A path at
  /// which there is a file is an error. A relative path is resolved once, at the start.
  std::string store_folder;

  /// Names the app to the services. Required, not empty; letters, digits, hyphens, full stops, underscores and tildes.
  Key app_key;
  Key hash_key;  ///< Seals what attributes the install. Required, not empty.
  /// Seals sessions and events. Required; an empty one is allowed and means that none of these is ever sent.
  Key tracking_key;

  /// Base URL of all endpoints; "": each has its default, which is reserved and reaches nobody (with a warning when
  /// all do). A missing slash at the end is added. https, or http to this machine itself.
  std::string service_url;
  /// Base URL of single endpoints, by the name of their constant; wins over `service_url`: kFendoTrackingBaseLiveUrl,
  /// kFendoConversionBaseLiveUrl, kFendoCampaignBaseLiveUrl, kCommerceBaseLiveUrl, kCrashReportBaseLiveUrl,
  /// kGdprReqUrl, KAppConfigBaseLiveUrl.
  std::map<std::string, std::string> endpoints;
  /// File of certificates (PEM) to trust in place of the system's; "": the system's. It has to be there at the start,
  /// and is read at the first upload.
  std::string ca_file;

  /// 0 off, 1 critical, 2 error, 3 warning, 4 info, 5 debug, 6 trace.
  int log_level = 2;
  /// Takes the log, a message a call, without a line feed at its end; a message may hold line breaks. Empty: standard
  /// error. On any thread, one call at a time; must not call the kit nor throw. The text is valid during the call.
  /// Lines about what the app records, hands over or posts come from the main queue, after the call that caused them.
  /// Not called in a forked child, whose one line goes to standard error.
  std::function<void(std::string_view line)> log_sink;

  DeviceDescription device;
  AdClient ad_client = AdClient::withoutDetails();
  /// Whether uncaught exceptions and fatal signals of the process become crash reports, as far as they concern the kit.
  /// Off unless asked for: such handlers belong to the whole process. See docs/crash.md.
  bool report_crashes = false;
  std::map<std::string, Module> modules;  ///< by class name
  /// A URL that opened the app before the kit was started; "": none. Kept in the store and handled at the end of the
  /// next session start. URLs that come later go to MorvikCore::passOpenURL().
  std::string opened_url;
  MainQueueMode main_queue = MainQueueMode::kOwnThread;
  /// Whether anything may be sent from the start on; false, say, until the user has consented. Everything is recorded
  /// all the same. See MorvikCore::setSendingEnabled().
  bool sending = true;
  /// Whether the environment may change log level, log file and service, for debugging, read once, at the start:
  /// MORVIK_LOG_LEVEL; MORVIK_LOG_FILE, to which lines are appended in place of `log_sink`; MORVIK_SERVICE_URL, in
  /// place of `service_url` and `endpoints`. A line says what it changed; empty ones change nothing, and wrong ones
  /// make the start fail. Not for what you ship: whoever can set a variable could send the app's events elsewhere.
  bool allow_environment = false;
};

}  // namespace morvik
