// What the service stores: every request with its answer, every event once, every impression, every install.
#pragma once

#include <SQLiteCpp/Database.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/base/json.h"
#include "apps/service/http/http_message.h"
#include "apps/service/store/readers.h"
#include "apps/service/store/store_folder.h"
#include "testing/service_endpoint.h"

namespace morvik_service {

/// A listing of the store keeps at most this many bytes in memory; a longer one ends early and says where to continue.
inline constexpr std::size_t kMaxListingBytes = std::size_t{64} * 1024 * 1024;
/// At most this many bytes of an answer are stored, with its true length: huge ones consist of padding.
inline constexpr std::size_t kMaxStoredAnswerBytes = std::size_t{64} * 1024;
/// A search reads at most this many requests at a time and says where to continue.
inline constexpr std::int64_t kMaxSearchedRequests = 5000;
/// ... and ends early once it has read this much of their payloads and bodies.
inline constexpr std::size_t kMaxSearchedBytes = std::size_t{32} * 1024 * 1024;
/// Summaries in one answer, installs in their list, requests that a device's timeline reads.
inline constexpr std::int64_t kMaxSummaries = 500;
inline constexpr std::int64_t kMaxInstallsListed = 200;
inline constexpr std::int64_t kMaxTimelineRequests = 500;
/// ... whose payloads, without the last, have no more bytes than this.
inline constexpr std::size_t kMaxTimelineBytes = std::size_t{32} * 1024 * 1024;
/// The default size of the store. Past it the oldest requests are deleted; the newest always stays.
inline constexpr std::int64_t kDefaultKeepMib = 1024;
inline constexpr std::int64_t kMaxKeepMib = std::int64_t{1024} * 1024;
inline constexpr std::int64_t kBytesOfMib = std::int64_t{1024} * 1024;
/// The free space that the file may keep for further requests.
inline constexpr std::int64_t kSpareBytes = kBytesOfMib;
/// Past that, one request returns at most this much to the disk, which is more than it brings.
inline constexpr std::int64_t kGivenBackAtOnce = 64 * kBytesOfMib;
/// Once no request is left to delete, this many event ids are deleted at a time.
inline constexpr std::int64_t kForgottenIdsAtOnce = 10000;
/// Install numbers start after this one.
inline constexpr std::int64_t kFirstUserNo = 100001;

using Counting = morvik::testing::PayloadCounting;

/// One request as it arrived, and its result.
struct RequestRecord {
  std::int64_t time_milliseconds = 0;
  std::string endpoint;  ///< "tracking", ...; "" if the path belongs to no endpoint
  HttpRequest request;
  std::optional<Json> payload;    ///< decoded; absent if there was none or it could not be opened
  std::optional<Json> refusal;    ///< why it was refused
  std::optional<Json> behaviour;  ///< the misbehaviour that changed its answer
  Counting counting = Counting::kNothing;
  bool counted = false;  ///< the content of the payload was counted
  HttpReply reply;
};

/// What a counted request contained.
struct Counts {
  std::int64_t events_new = 0;         ///< ids never seen before
  std::int64_t events_again = 0;       ///< ids that had arrived already
  std::int64_t events_without_id = 0;  ///< with "" as id: stored with the request's payload, not counted
  std::int64_t impressions = 0;
};

struct Install {
  std::int64_t user_no = 0;
  std::int64_t first_seen_milliseconds = 0;
};

/// The totals of everything that arrived.
struct Totals {
  std::int64_t requests = 0;
  std::int64_t refused = 0;
  std::int64_t delivered = 0;  ///< events, each counted once
  std::int64_t duplicate = 0;  ///< arrivals of events that had arrived before
  std::int64_t impressions = 0;
};

/// Which part of a list to show, oldest first.
struct Page {
  std::int64_t after = 0;          ///< entries with a larger number
  std::int64_t limit = INT64_MAX;  ///< at most this many
  std::size_t max_bytes = kMaxListingBytes;
};

/// Which requests to list, newest first.
struct SummaryQuery {
  std::int64_t before = INT64_MAX;  ///< requests with a smaller number
  std::int64_t limit = 50;          ///< at most this many
  std::string search;               ///< words, each of which must occur somewhere in the request; "" for all
  std::string install;              ///< "" for all
  std::string endpoint;             ///< "" for all
  bool refused_only = false;
  std::int64_t most_searched = kMaxSearchedRequests;
};

/// What is known about an install.
struct InstallRequests {
  std::vector<Json> requests;  ///< newest first, as {"id","time_ms","endpoint","payload","counted"}
  bool complete = true;        ///< false when older ones were not looked at
};

/// Any thread: writers wait for each other; readers see what was committed when they began and wait for no writer, nor
/// any writer for them. One process per folder, which is locked while the store lives. Folder and files are
/// accessible to their owner only.
class Store {
 public:
  /// Opens or creates the database in `folder`, and shrinks it to `keep_bytes`. Throws SetupError if the folder
  /// cannot be used, is in use by another service, or was written by a newer version.
  explicit Store(const std::string& folder, std::int64_t keep_bytes = kDefaultKeepMib * kBytesOfMib);

  /// Writes the request and, when they are `counted`, its payload's events and impressions, all or nothing. Returns the
  /// request's number. If the store is then too large, the oldest requests are deleted, with their events and
  /// impressions; their counts stay, and the space of a large one is returned to the disk. Throws SQLite::Exception if
  /// the disk refuses.
  std::int64_t add(const RequestRecord& record, Counts& counts);

  /// The install that sends `install_id`; a new one gets the next number. Throws SQLite::Exception.
  Install install(const std::string& install_id, std::int64_t now_milliseconds);

  /// JSON texts: {"requests":[...],"complete":true,"next_after":N}. "complete" is false when more are stored than the
  /// page shows; ask again with after=next_after.
  std::string requestsJson(const Page& page);
  /// {"events":[...],"distinct":N,"arrivals":M,...}; "distinct" and "arrivals" are of all events, not of the page, and
  /// also of those whose requests were deleted.
  std::string eventsJson(const Page& page);

  /// {"requests":[...],"next_before":N,"complete":true}, newest first; "complete" is false when older ones were not
  /// looked at: ask again with before=next_before (0 at the end).
  std::string summariesJson(const SummaryQuery& query);
  /// Summaries of requests with a larger number, oldest first, at most `limit`.
  std::vector<Json> summariesAfter(std::int64_t after, std::int64_t limit);
  /// The number of the newest request, 0 if there is none.
  std::int64_t newestRequest();
  /// What arrived of one event: {"event_id","known","arrivals","event","requests":[...],"complete","searched_from"}.
  /// "known" is true once a request with it was counted; "arrivals" counts those, "event" is as it arrived, or null.
  /// The requests are summaries, oldest first, each with "arrival": "first", "repeated" or "not counted", and "times",
  /// how often the event is in it. Requests that were not counted are searched for as summariesJson does: "complete" is
  /// false if those older than number "searched_from" were not looked at.
  Json eventHistory(const std::string& event_id);
  /// One request whole, or null.
  Json request(std::int64_t id);
  /// The requests of an install, at most kMaxTimelineRequests of them, and no more once their payloads are longer than
  /// `limit_bytes`.
  InstallRequests requestsOfInstall(const std::string& install, std::size_t limit_bytes = kMaxTimelineBytes);
  /// {"installs":[{"install","requests","newest","last_time"}],"complete":true}, the most recent first; deleted
  /// requests count.
  std::string installsJson(std::int64_t limit = kMaxInstallsListed);
  /// What arrived from an install and was counted, by the kinds of its ledger: {"activities":N,"impressions":N,
  /// "re-engagement clicks":N,"commerce clicks":N,"crash reports":N,"demographics":N}. An event counts once; of the
  /// others, which have no ids, every arrival does.
  Json arrivedOf(const std::string& install);
  /// Everything so far.
  Totals totals();

 private:
  std::string ownerOf(const Json& payload, bool is_refused);
  std::int64_t write(const RequestRecord& record, Counts& counts);
  std::int64_t insertRequest(const RequestRecord& record);
  void countEvents(std::int64_t request_id, const Json& payload, Counts& counts);
  void addImpressions(std::int64_t request_id, const Json& payload, Counts& counts);
  void noteCounts(std::int64_t request_id, const Counts& counts);
  void addToTotals(const RequestRecord& record, const Counts& counts);
  void dropUntilItFits();
  void makeFileAnew();
  void giveRoomBack();

  const StoreFolder folder_;
  const std::int64_t keep_bytes_;
  std::mutex writing_;  ///< guards database_
  SQLite::Database database_;
  Readers readers_;
};

}  // namespace morvik_service
