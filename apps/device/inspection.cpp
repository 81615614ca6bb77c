#include "apps/device/inspection.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <unordered_map>
#include <variant>

#include "MorvikCoreLib/failure_counts.h"
#include "apps/device/ledger_rows.h"
#include "apps/device/stored_ledger.h"
#include "host/json/simdjson_codec.h"
#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/earlier_crash.h"
#include "host/posix/report_file.h"
#include "host/posix/system_clock.h"
#include "host/store/sqlite_store.h"
#include "runtime/ledger/exchange_trail.h"
#include "runtime/ledger/ledger_accounts.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/conversion_cache.h"
#include "services/endpoints.h"

namespace morvik_device {
namespace {

namespace host = morvik::host;
namespace runtime = morvik::runtime;
namespace kit = morvik::kit;
namespace property = morvik::services::property;

constexpr const char* kUnderWay = "in the latest batch";
constexpr const char* kFailures = "failed";
constexpr const char* kShelf = "crash-reports";
constexpr const char* kSignals = "crash-signal";
constexpr const char* kLaunchCounter = "com.morvik.core.appLaunchCount";

std::vector<Section> emptySections() {
  return {
      {"install", "Install", "nothing: the app has not been started", {}, {}},
      {"sessions", "Sessions", "none yet", {}, {}},
      {"activities", "Activities", "none wait", {}, {}},
      {"impressions", "Impressions", "none wait", {}, {}},
      {"re_engagements", "Re-engagement clicks", "none failed", {}, {}},
      {"commerce", "Commerce", "nothing waits", {}, {}},
      {"crashes", "Crash reports", "none wait", {}, {}},
      {"demographics", "Demographics", "none were given", {}, {}},
      {"schedule", "Campaign schedule", "never in the store: each process fetches it again", {}, {}},
      {"consent", "Consent", "never asked to be forgotten", {}, {}},
      {"ledger", "Ledger: what became of all that was recorded", "nothing was recorded yet", {}, {}},
      {"host", "The host's own", "nothing", {}, {}},
      {"unknown", "Unknown to this program", "nothing", {}, {}},
  };
}

/// Where an entry of the store belongs.
struct Place {
  std::string_view section;
  std::string_view name;
  std::string_view title;
  Meaning meaning = Meaning::kPlain;
};

// In the order in which they are shown.
constexpr Place kPlaces[] = {
    {"install", property::fendoUserInfo_fendoUserNo, "user number", Meaning::kNoneIfMinusOne},
    {"install", property::fendoUserInfo_referralKey, "referral key", Meaning::kNoneIfMinusOne},
    {"install", property::fendoUserInfo_subReferralKey, "sub referral key"},
    {"install", property::fendoUserInfo_refUSN, "referring user"},
    {"install", property::fendoUserInfo_channelType, "channel type"},
    {"install", property::fendoUserInfo_referral_data, "referral data"},
    {"install", property::fendoUserInfo_shardNum, "shard of the user"},
    {"install", property::fendoUserInfo_shardNo, "shard number"},
    {"install", property::fendoUserInfo_install_datetime, "installed"},
    {"install", property::fendoUserInfo_install_mdatetime, "installed, as a number"},
    {"install", property::fendoUserInfo_updated_at, "attribution stored"},
    {"install", property::fendoUserInfo_last_referral_key, "last referral key"},
    {"install", property::fendoUserInfo_last_referral_data, "last referral data"},
    {"install", property::fendoUserInfo_last_referral_datetime, "last referral"},
    {"install", property::fendoUserInfo_reengagement_conversion_key, "re-engagement key"},
    {"install", property::fendoUserInfo_reengagement_data, "re-engagement data"},
    {"install", property::fendoUserInfo_reengagement_datetime, "re-engagement, as a number"},
    {"install", property::fendoConversionInfoForCaches, "conversion keys reported"},
    {"install", property::MorvikCoreUserInfo_IDFA, "advertising identifier"},
    {"install", property::fendoUserInfo_isApplicationPortrait, "portrait"},
    {"sessions", kLaunchCounter, "launches"},
    {"sessions", property::fendoUserInfo_last_app_launched_date, "last retention mark"},
    {"sessions", property::MorvikCoreUserInfo_endSessoinDate, "last session ended"},
    {"sessions", morvik::services::kPassOpenUrlKey, "opened URL that waits"},
    {"activities", property::fendoActivityInfos, "waiting"},
    {"activities", property::fendoActivityInfosSentEventKeys, "in the latest batch"},
    {"impressions", property::fendoImpressionInfos, "waiting"},
    {"re_engagements", property::reEngagementInfos, "to be sent again"},
    {"re_engagements", property::reEngagementConversionFailedCnt, "failures counted"},
    {"commerce", property::commerceConversionInfos, "clicks waiting"},
    {"commerce", property::commerceExpansionInfos, "events of the module"},
    {"commerce", property::commercePremiumPostBack, "premium postback"},
    {"crashes", property::MorvikCoreUserInfo_Crash, "waiting"},
    {"crashes", kShelf, "on the shelf until the next start"},
    {"crashes", kSignals, "deaths to be reported at the next start"},
    {"demographics", property::fendoUserDemoInfo_age, "age to be sent", Meaning::kNoneIfMinusOne},
    {"demographics", property::fendoUserDemoInfo_gender, "gender to be sent", Meaning::kGender},
    {"demographics", property::fendoUserDemoInfo_userId, "user id to be sent"},
    {"demographics", property::fendoUserDemoInfoForComplete_age, "age", Meaning::kNoneIfMinusOne},
    {"demographics", property::fendoUserDemoInfoForComplete_gender, "gender", Meaning::kGender},
    {"demographics", property::fendoUserDemoInfoForComplete_userId, "user id"},
    {"consent", property::MorvikCoreUserInfo_isGDPRForgetMe, "forgotten, or to be"},
    {"consent", property::MorvikCoreUserInfo_isGDPRForgetMeServerSynced, "accepted by the service"},
    {"host", runtime::kInstallIdKey, "install id"},
    {"host", runtime::kDeviceIdKey, "device id"},
    {"host", runtime::kAdvertisingIdKey, "advertising identifier made here"},
    {"host", morvik::services::kConversionTimesKey, "times of conversions"},
    {"host", runtime::kTrailKey, "batches that --explain knows"},
};

ListForm formOf(std::string_view name) {
  if (name == property::fendoActivityInfos)
    return {{{"activityCreatedAt", "recorded"},
             {"activityGroupName", "group"},
             {"activityName", "name"},
             {"activityParam", "param", Meaning::kParameter},
             {"activityEventID", "id"}}};
  if (name == property::fendoImpressionInfos)
    return {{{"createdAt", "seen"}, {"campaignKey", "campaign"}, {"spaceKey", "space"}}};
  if (name == property::reEngagementInfos)
    return {{{"conversion_key", "key"}, {kFailures, "failed"}, {"deeplink_uri", "URL"}}};
  if (name == property::commerceConversionInfos)
    return {{{"mtime", "clicked", Meaning::kMilliseconds}, {"clickId", "click"}, {"idfa", "advertising identifier"}}};
  if (name == property::MorvikCoreUserInfo_Crash || name == kShelf)
    return {{{"local_kst_time", "at UTC+9"}, {"exception_reason", "reason"}}, true};
  if (name == kSignals)
    return {{{"date", "when"}, {"signal", "signal"}}};
  if (name == morvik::services::kConversionTimesKey)
    return {{{"time", "when", Meaning::kMilliseconds}, {"conversion_key", "key"}}};
  const bool is_told_elsewhere = name == property::fendoActivityInfosSentEventKeys ||  // shown with each activity
                                 name == property::reEngagementConversionFailedCnt;    // shown with each click
  return {{}, is_told_elsewhere};
}

Section& sectionNamed(std::vector<Section>& sections, std::string_view name) {
  return *std::find_if(sections.begin(), sections.end(), [&](const Section& each) { return each.name == name; });
}

kit::Array newestOf(const kit::Array& all, size_t shown) {
  kit::MutableArray newest;
  for (size_t index = all.size() - std::min(shown, all.size()); index < all.size(); ++index)
    newest.append(all[index]);
  return kit::Value(std::move(newest)).array();
}

/// The trail is not for reading: how many batches it knows.
kit::Value shownValue(std::string_view name, const kit::Value& value) {
  if (name != runtime::kTrailKey)
    return value;
  return static_cast<int64_t>(runtime::extentOf(runtime::soundTrail(value).trail, {}).exchanges);
}

void put(const Place& place, const kit::Value& value, size_t shown, std::vector<Section>& sections) {
  Section& section = sectionNamed(sections, place.section);
  const std::string name(place.name);
  const std::string title(place.title);
  if (value.isArray()) {
    const kit::Array all = value.array();
    section.lists.push_back({name, title, all.size(), newestOf(all, shown), formOf(place.name)});
  } else {
    section.values.push_back({name, title, value, place.meaning});
  }
}

const kit::Value& valueIn(const StoredEntries& entries, std::string_view name) {
  static const kit::Value absent;
  const auto found = std::find_if(entries.begin(), entries.end(), [&](const auto& each) { return each.first == name; });
  return found == entries.end() ? absent : found->second;
}

ShownList* listNamed(std::vector<Section>& sections, std::string_view section, std::string_view name) {
  std::vector<ShownList>& lists = sectionNamed(sections, section).lists;
  const auto found = std::find_if(lists.begin(), lists.end(), [&](const ShownList& each) { return each.name == name; });
  return found == lists.end() ? nullptr : &*found;
}

/// Each shown record that is a dictionary, with the fields that `add` adds to it.
template <class Add>
void enrich(ShownList* list, Add add) {
  if (list == nullptr)
    return;
  kit::MutableArray enriched;
  for (const kit::Value& record : list->newest) {
    if (!record.isDictionary()) {
      enriched.append(record);
      continue;
    }
    kit::MutableDictionary more(record);
    add(record, more);
    enriched.append(kit::Value(std::move(more)));
  }
  list->newest = kit::Value(std::move(enriched)).array();
}

void markTheLatestBatch(const StoredEntries& entries, std::vector<Section>& sections) {
  std::set<std::string_view> ids;
  for (const kit::Value& id : valueIn(entries, property::fendoActivityInfosSentEventKeys).array())
    ids.insert(id.string());
  enrich(listNamed(sections, "activities", property::fendoActivityInfos),
         [&ids](const kit::Value& record, kit::MutableDictionary& more) {
           if (ids.count(record["activityEventID"].string()) != 0)
             more.set(kUnderWay, true);
         });
}

void tellFailures(const StoredEntries& entries, std::vector<Section>& sections) {
  std::unordered_map<int64_t, int64_t> failures;
  for (const kit::Value& count : valueIn(entries, property::reEngagementConversionFailedCnt).array())
    failures[morvik::conversionKeyOf(count)] = morvik::failuresOf(count);
  enrich(listNamed(sections, "re_engagements", property::reEngagementInfos),
         [&failures](const kit::Value& record, kit::MutableDictionary& more) {
           more.set(kFailures, failures[morvik::conversionKeyOf(record)]);
         });
}

/// The entries that were found, as a store.
class FoundEntries final : public kit::KeyValueStore {
 public:
  explicit FoundEntries(const StoredEntries& entries) : entries_(entries) {}
  kit::Value get(std::string_view key) const override { return valueIn(entries_, key); }
  std::optional<kit::Value> tryGet(std::string_view key) const override { return get(key); }
  void set(std::string_view, kit::Value) override {}
  void append(std::string_view, kit::Value) override {}
  void replace(std::string_view, const kit::Value&, kit::Value) override {}
  bool synchronize() override { return false; }
  bool trySetAndSynchronize(std::string_view, kit::Value) override { return false; }

 private:
  const StoredEntries& entries_;
};

/// Replaces the stored counts, which alone do not say what is stored.
void tellLedger(const StoredEntries& entries, std::vector<Section>& sections) {
  const morvik::Ledger ledger = storedLedger(FoundEntries(entries));
  const bool is_empty = std::all_of(ledger.accounts.begin(), ledger.accounts.end(),
                                    [](const auto& account) { return account.recorded == 0 && account.balances(); });
  if (is_empty)
    return;
  const LedgerRows rows = rowsOf(ledger);
  Section& section = sectionNamed(sections, "ledger");
  section.values = {{"balances", "balances", rows.balances}, {"sound", "sound", rows.is_sound}};
  const ListForm of_accounts = {{{"kind", ""},
                                 {"recorded", "recorded"},
                                 {"delivered", "delivered"},
                                 {"stored", "stored"},
                                 {"under_way", "under way"},
                                 {"given_up", "given up"},
                                 {"found_uncounted", "found uncounted"}}};
  const ListForm of_reasons = {{{"kind", "kind"}, {"count", "count"}, {"reason", "reason"}, {"by_rule", "by a rule"}}};
  section.lists.push_back({"accounts", "accounts", rows.accounts.size(), rows.accounts, of_accounts});
  section.lists.push_back({"given_up", "given up, by reason", rows.given_up.size(), rows.given_up, of_reasons});
}

/// Collects what the readers log, for the inspection's remarks.
class Remarks final : public kit::LogSink {
 public:
  void line(std::string_view text) override { lines.emplace_back(text); }
  bool tryLine(std::string_view text) override {
    line(text);
    return true;
  }
  std::vector<std::string> lines;
};

/// Removes the prefix of the host's log lines.
std::string withoutSpeaker(const std::string& line) {
  constexpr std::string_view kSpeaker = "Morvik host: ";
  return line.compare(0, kSpeaker.size(), kSpeaker) == 0 ? line.substr(kSpeaker.size()) : line;
}

std::optional<std::string> missing(const host::StorePlace& place) {
  std::error_code error;
  const auto kind = std::filesystem::status(place.folder, error).type();
  if (kind == std::filesystem::file_type::not_found)
    return "there is no folder " + place.folder + "; name the folder that the app has as its store";
  if (error)
    return place.folder + " cannot be looked at (" + error.message() + "); fix its permissions";
  if (kind != std::filesystem::file_type::directory)
    return place.folder + " is not a folder; name the folder in which the store lies";
  if (std::filesystem::status(place.path(), error).type() == std::filesystem::file_type::not_found)
    return "there is no store in " + place.folder + " (no file " + place.name + "); name the folder of an app's store";
  return std::nullopt;
}

void readShelf(const std::string& folder, OutsideTheStore& out, std::vector<std::string>& remarks) {
  const host::SimdjsonCodec json;
  Remarks unused;
  host::ReportFile shelf(folder, json, unused);
  out.shelved_reports = shelf.reports();
  if (!unused.lines.empty())
    remarks.push_back(shelf.path() + " cannot be read, or not all of it; what can be read is shown");
}

void readSignals(const std::string& folder, OutsideTheStore& out, std::vector<std::string>& remarks) {
  const std::string latest = host::crashRecordPath(folder);
  kit::MutableArray signals;
  for (const std::string& path : {host::waitingRecordPath(latest), latest}) {
    const auto read = host::readCrashRecord(path);
    if (const auto* error = std::get_if<kit::Error>(&read)) {
      remarks.push_back(error->message);
      continue;
    }
    const auto& file = std::get<std::optional<host::CrashRecordFile>>(read);
    if (file && file->record)
      signals.append(kit::Dictionary{{"date", kit::Date{file->record->time_microseconds}},
                                     {"signal", host::signalName(file->record->signal)}});
  }
  out.fatal_signals = kit::Value(std::move(signals)).array();
}

void remarkFilesSetAside(const std::string& folder, std::vector<std::string>& remarks) {
  std::error_code error;
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.path().filename().string().find(".unreadable") != std::string::npos)
      found.insert(entry.path().string());
  }
  for (const std::string& path : found)
    remarks.push_back(path + " was set aside by the app, since it could not be read");
}

}  // namespace

std::vector<Section> sorted(const StoredEntries& entries, const OutsideTheStore& outside, size_t shown) {
  std::vector<Section> sections = emptySections();
  std::set<std::string_view> known = {runtime::kLedgerKey};
  for (const Place& place : kPlaces) {
    known.insert(place.name);
    if (const kit::Value& value = valueIn(entries, place.name); !value.isAbsent())
      put(place, shownValue(place.name, value), shown, sections);
    if (place.name == kShelf && !outside.shelved_reports.empty())
      put(place, outside.shelved_reports, shown, sections);
    if (place.name == kSignals && !outside.fatal_signals.empty())
      put(place, outside.fatal_signals, shown, sections);
  }
  for (const auto& [name, value] : entries) {
    if (known.count(name) == 0)
      put({"unknown", name, name}, value, shown, sections);
  }
  markTheLatestBatch(entries, sections);
  tellFailures(entries, sections);
  tellLedger(entries, sections);
  return sections;
}

std::optional<std::string> inspect(const std::string& folder, size_t shown, Inspection& out) {
  const host::StorePlace place{.folder = folder};
  if (auto problem = missing(place))
    return problem;
  Remarks remarks;
  const host::SqliteStore store({.place = place, .read_only = true}, remarks);
  if (store.opening() != runtime::StoreOpening::kOpened)
    return withoutSpeaker(store.openingLine());
  for (const std::string& line : remarks.lines)
    out.remarks.push_back(withoutSpeaker(line));
  OutsideTheStore outside;
  readShelf(folder, outside, out.remarks);
  readSignals(folder, outside, out.remarks);
  remarkFilesSetAside(folder, out.remarks);
  out.store = place.path();
  out.sections = sorted(store.all(), outside, shown);
  return std::nullopt;
}

std::optional<std::string> explainStored(const std::string& folder, std::string_view event_id,
                                         morvik::Explanation& out) {
  const host::StorePlace place{.folder = folder};
  if (auto problem = missing(place))
    return problem;
  Remarks remarks;
  const host::SqliteStore store({.place = place, .read_only = true}, remarks);
  if (store.opening() != runtime::StoreOpening::kOpened)
    return withoutSpeaker(store.openingLine());
  out = runtime::explain(store.get(runtime::kTrailKey), store.get(property::fendoActivityInfos), event_id,
                         host::SystemClock().now());
  if (out.state == morvik::Explanation::State::kNotAnId)
    return out.sentence;
  return std::nullopt;
}

}  // namespace morvik_device
