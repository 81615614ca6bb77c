#include "apps/service/store/store.h"

#include <SQLiteCpp/VariadicBind.h>
#include <sqlite3.h>

#include <algorithm>

#include "apps/service/base/refusal.h"
#include "apps/service/store/store_counts.h"
#include "apps/service/store/store_rows.h"
#include "apps/service/store/store_schema.h"
#include "apps/service/store/summary.h"

namespace morvik_service {
namespace {

SQLite::Database openDatabase(const StoreFolder& folder) {
  try {
    return {folder.databaseFile(), SQLite::OPEN_READWRITE};
  } catch (const SQLite::Exception& error) {
    throw SetupError("cannot open the store in " + folder.path() + ": " + error.what());
  }
}

// An unbound parameter is NULL.
void bindJson(SQLite::Statement& statement, const char* name, const std::optional<Json>& value) {
  if (value)
    statement.bind(name, jsonText(*value));
}

// Runs a statement to its end and resets it.
void finish(SQLite::Statement& statement) {
  while (statement.executeStep()) {
  }
  statement.reset();
}

Json headersJson(const NamedValues& headers) {
  Json pairs = Json::array();
  for (const auto& [name, value] : headers)
    pairs.push_back(Json::array({name, value}));
  return pairs;
}

// Collects entries until a page is full, by count or by bytes.
class Listing {
 public:
  explicit Listing(const Page& page) : page_(page), next_after_(page.after) {}

  // False if the entry no longer fits. The first always fits, so that a reader makes progress.
  bool add(std::int64_t number, const Json& entry) {
    const std::string text = jsonText(entry);
    if (count_ == page_.limit || (count_ > 0 && text_.size() + text.size() > page_.max_bytes)) {
      complete_ = false;
      return false;
    }
    text_ += (count_ == 0 ? "" : ",") + text;
    ++count_;
    next_after_ = number;
    return true;
  }

  std::string finish(std::string_view name, const Json& totals) const {
    std::string text = "{\"" + std::string(name) + "\":[" + text_ + "]";
    for (const auto& [key, value] : totals.items())
      text += ",\"" + key + "\":" + jsonText(value);
    return text + ",\"complete\":" + (complete_ ? "true" : "false") + ",\"next_after\":" + std::to_string(next_after_) +
           "}";
  }

 private:
  Page page_;
  std::string text_;
  std::int64_t count_ = 0;
  std::int64_t next_after_;
  bool complete_ = true;
};

// One more than requested, so that the listing knows whether something is left.
std::int64_t rowsToRead(const Page& page) {
  return page.limit == INT64_MAX ? page.limit : page.limit + 1;
}

std::vector<std::int64_t> requestsOfEvent(SQLite::Statement& arrivals, std::int64_t event_number) {
  std::vector<std::int64_t> requests;
  arrivals.bind(1, event_number);
  while (arrivals.executeStep())
    requests.insert(requests.end(), static_cast<std::size_t>(integerAt(arrivals, 1)), integerAt(arrivals, 0));
  arrivals.reset();
  return requests;
}

}  // namespace

Store::Store(const std::string& folder, std::int64_t keep_bytes)
    : folder_(folder), keep_bytes_(keep_bytes), database_(openDatabase(folder_)), readers_(folder_.databaseFile()) {
  try {
    openSchema(database_);
    SQLite::Transaction transaction(database_);
    dropUntilItFits();
    transaction.commit();
    makeFileAnew();
  } catch (const SQLite::Exception& error) {
    if (error.getErrorCode() == SQLITE_BUSY)
      throw SetupError(folder_.inUseText());
    throw SetupError("cannot use the store in " + folder + ": " + error.what());
  }
}

std::int64_t Store::add(const RequestRecord& record, Counts& counts) {
  const std::lock_guard lock(writing_);
  const std::int64_t id = write(record, counts);
  giveRoomBack();
  return id;
}

std::int64_t Store::write(const RequestRecord& record, Counts& counts) {
  counts = {};
  SQLite::Transaction transaction(database_);
  const std::int64_t id = insertRequest(record);
  if (record.counted && record.counting == Counting::kEvents && record.payload) {
    countEvents(id, *record.payload, counts);
    addImpressions(id, *record.payload, counts);
    noteCounts(id, counts);
  }
  addToTotals(record, counts);
  dropUntilItFits();
  transaction.commit();
  return id;
}

std::int64_t Store::insertRequest(const RequestRecord& record) {
  const HttpRequest& request = record.request;
  const std::string& answer = record.reply.body;
  const std::size_t stored_answer_bytes = std::min(answer.size(), kMaxStoredAnswerBytes);
  SQLite::Statement insert(
      database_,
      "INSERT INTO requests(time_ms, endpoint, method, path, headers, body, body_bytes, payload, refusal, behaviour,"
      " counted, answered, status, answer, answer_bytes, install, about) VALUES(:time_ms, :endpoint, :method, :path,"
      " :headers, :body, :body_bytes, :payload, :refusal, :behaviour, :counted, :answered, :status, :answer,"
      " :answer_bytes, :install, :about)");
  insert.bind(":time_ms", record.time_milliseconds);
  insert.bind(":endpoint", record.endpoint);
  insert.bind(":method", request.method);
  insert.bind(":path", request.path);
  insert.bind(":headers", jsonText(headersJson(request.headers)));
  insert.bind(":body", request.body.data(), static_cast<int>(request.body.size()));
  insert.bind(":body_bytes", static_cast<std::int64_t>(request.body_bytes));
  bindJson(insert, ":payload", record.payload);
  bindJson(insert, ":refusal", record.refusal);
  bindJson(insert, ":behaviour", record.behaviour);
  insert.bind(":counted", record.counted ? 1 : 0);
  insert.bind(":answered", record.reply.close_without_answer ? 0 : 1);
  insert.bind(":status", record.reply.status);
  insert.bind(":answer", answer.data(), static_cast<int>(stored_answer_bytes));
  insert.bind(":answer_bytes", static_cast<std::int64_t>(answer.size()));
  insert.bind(":install", record.payload ? ownerOf(*record.payload, record.refusal.has_value()) : "");
  insert.bind(":about", record.payload ? aboutPayload(record.endpoint, *record.payload) : "");
  insert.exec();
  return database_.getLastInsertRowid();
}

// Some payloads name no install but an identifier that an earlier one named together with its install. Refused payloads
// do not count here: anybody may have sent them.
std::string Store::ownerOf(const Json& payload, bool is_refused) {
  std::string install = installOf(payload);
  const std::vector<std::string> identities = identitiesOf(payload);
  if (!install.empty() && is_refused)
    return install;
  if (!install.empty()) {
    SQLite::Statement note(
        database_,
        "INSERT INTO identities(identity, install) VALUES(?, ?)"
        " ON CONFLICT(identity) DO UPDATE SET install = excluded.install WHERE install != excluded.install");
    for (const std::string& identity : identities) {
      SQLite::bind(note, identity, install);
      finish(note);
    }
    return install;
  }
  SQLite::Statement query(database_, "SELECT install FROM identities WHERE identity = ?");
  for (const std::string& identity : identities) {
    query.reset();
    query.bind(1, identity);
    if (query.executeStep())
      return std::string(bytesAt(query, 0));
  }
  return install;
}

void Store::countEvents(std::int64_t request_id, const Json& payload, Counts& counts) {
  SQLite::Statement event(database_,
                          "INSERT INTO events(event_id, event, arrivals) VALUES(?, ?, 1)"
                          " ON CONFLICT(event_id) DO UPDATE SET arrivals = arrivals + 1,"
                          " event = CASE event WHEN '' THEN excluded.event ELSE event END RETURNING number, arrivals");
  SQLite::Statement arrival(database_,
                            "INSERT INTO arrivals(event, request, times) VALUES(?, ?, 1)"
                            " ON CONFLICT(event, request) DO UPDATE SET times = times + 1");
  for (const Json& activity : payload.at("activity_info")) {
    const auto& event_id = activity.at("event_id").get_ref<const std::string&>();
    if (event_id.empty()) {
      ++counts.events_without_id;
      continue;
    }
    SQLite::bind(event, event_id, jsonText(activity));
    event.executeStep();
    const std::int64_t number = integerAt(event, 0);
    ++(integerAt(event, 1) == 1 ? counts.events_new : counts.events_again);
    finish(event);
    SQLite::bind(arrival, number, request_id);
    finish(arrival);
  }
}

void Store::addImpressions(std::int64_t request_id, const Json& payload, Counts& counts) {
  SQLite::Statement insert(database_, "INSERT INTO impressions(request, impression) VALUES(?, ?)");
  for (const Json& impression : payload.at("impression_info")) {
    SQLite::bind(insert, request_id, jsonText(impression));
    finish(insert);
    ++counts.impressions;
  }
}

void Store::noteCounts(std::int64_t request_id, const Counts& counts) {
  SQLite::Statement update(
      database_,
      "UPDATE requests SET events_new = ?, events_again = ?, events_without_id = ?, impressions = ? WHERE id = ?");
  SQLite::bind(update, counts.events_new, counts.events_again, counts.events_without_id, counts.impressions,
               request_id);
  update.exec();
}

void Store::addToTotals(const RequestRecord& record, const Counts& counts) {
  SQLite::Statement update(
      database_,
      "UPDATE totals SET requests = requests + 1, refused = refused + ?, delivered = delivered + ?,"
      " duplicate = duplicate + ?, impressions = impressions + ?");
  SQLite::bind(update, record.refusal ? 1 : 0, counts.events_new, counts.events_again, counts.impressions);
  update.exec();
}

Install Store::install(const std::string& install_id, std::int64_t now_milliseconds) {
  const std::lock_guard lock(writing_);
  SQLite::Statement insert(database_,
                           "INSERT INTO installs(install_id, first_seen_ms) VALUES(?, ?) ON CONFLICT DO NOTHING");
  SQLite::bind(insert, install_id, now_milliseconds);
  insert.exec();
  SQLite::Statement query(database_, "SELECT user_no, first_seen_ms FROM installs WHERE install_id = ?");
  query.bind(1, install_id);
  query.executeStep();
  return {integerAt(query, 0), integerAt(query, 1)};
}

std::string Store::requestsJson(const Page& page) {
  Readers::Lease reader = readers_.take();
  Listing listing(page);
  SQLite::Statement rows(reader.database(), std::string(kSelectRequest) + " WHERE id > ? ORDER BY id LIMIT ?");
  SQLite::bind(rows, page.after, rowsToRead(page));
  while (rows.executeStep()) {
    if (!listing.add(integerAt(rows, 0), requestRow(rows)))
      break;
  }
  return listing.finish("requests", Json::object());
}

std::string Store::eventsJson(const Page& page) {
  Readers::Lease reader = readers_.take();
  Listing listing(page);
  SQLite::Statement rows(
      reader.database(),
      "SELECT number, event, arrivals FROM events WHERE number > ? AND event != '' ORDER BY number LIMIT ?");
  SQLite::Statement arrivals(reader.database(), "SELECT request, times FROM arrivals WHERE event = ? ORDER BY request");
  SQLite::bind(rows, page.after, rowsToRead(page));
  while (rows.executeStep()) {
    Json event = Json::parse(bytesAt(rows, 1));
    event["number"] = integerAt(rows, 0);
    event["arrivals"] = integerAt(rows, 2);
    event["requests"] = requestsOfEvent(arrivals, integerAt(rows, 0));
    if (!listing.add(integerAt(rows, 0), event))
      break;
  }
  const Totals totals = readTotals(reader.database());
  return listing.finish("events", {{"distinct", totals.delivered}, {"arrivals", totals.delivered + totals.duplicate}});
}

}  // namespace morvik_service
