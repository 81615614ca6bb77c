#include "apps/service/store/store_rows.h"

#include <SQLiteCpp/Column.h>

#include <algorithm>

#include "apps/service/base/base64url.h"
#include "apps/service/base/times.h"

namespace morvik_service {
namespace {

bool isPlainText(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(),
                     [](char c) { return (c >= ' ' && c <= '~') || c == '\n' || c == '\r'; });
}

}  // namespace

std::int64_t integerAt(const SQLite::Statement& row, int column) {
  return row.getColumn(column).getInt64();
}

std::string_view bytesAt(const SQLite::Statement& row, int column) {
  const SQLite::Column value = row.getColumn(column);
  const void* data = value.getBlob();
  if (data == nullptr)
    return {};
  return {static_cast<const char*>(data), static_cast<std::size_t>(value.getBytes())};
}

// Form bodies are ASCII; any other bytes are shown without loss.
void showBody(Json& shown, std::string_view bytes) {
  if (isPlainText(bytes)) {
    shown["body"] = bytes;
  } else {
    shown["body_base64url"] = encodeBase64Url(bytes);
  }
}

Json storedJson(const SQLite::Statement& row, int column) {
  return row.isColumnNull(column) ? Json(nullptr) : Json::parse(bytesAt(row, column));
}

const std::string_view kSelectRequest =
    "SELECT id, time_ms, endpoint, method, path, headers, body, body_bytes, payload, refusal, behaviour, counted,"
    " events_new, events_again, events_without_id, impressions, answered, status, answer, answer_bytes FROM requests";

Json requestRow(const SQLite::Statement& row) {
  Json shown = {{"id", integerAt(row, 0)},        {"time", isoTime(integerAt(row, 1))},
                {"endpoint", bytesAt(row, 2)},    {"method", bytesAt(row, 3)},
                {"path", bytesAt(row, 4)},        {"headers", storedJson(row, 5)},
                {"body_bytes", integerAt(row, 7)}};
  showBody(shown, bytesAt(row, 6));
  shown["payload"] = storedJson(row, 8);
  shown["refusal"] = storedJson(row, 9);
  shown["behaviour"] = storedJson(row, 10);
  shown["counted"] = integerAt(row, 11) != 0;
  shown["events_new"] = integerAt(row, 12);
  shown["events_again"] = integerAt(row, 13);
  shown["events_without_id"] = integerAt(row, 14);
  shown["impressions"] = integerAt(row, 15);
  shown["answer"] = {{"sent", integerAt(row, 16) != 0},
                     {"status", integerAt(row, 17)},
                     {"body", bytesAt(row, 18)},
                     {"body_bytes", integerAt(row, 19)}};
  return shown;
}

const std::string_view kSelectSummary =
    "SELECT id, time_ms, endpoint, method, path, body_bytes, refusal, behaviour, counted, events_new, events_again,"
    " events_without_id, impressions, answered, status, install, about FROM requests";

Json summaryRow(const SQLite::Statement& row) {
  const Json refusal = storedJson(row, 6);
  const Json behaviour = storedJson(row, 7);
  return {{"id", integerAt(row, 0)},
          {"time", isoTime(integerAt(row, 1))},
          {"endpoint", bytesAt(row, 2)},
          {"method", bytesAt(row, 3)},
          {"path", bytesAt(row, 4)},
          {"body_bytes", integerAt(row, 5)},
          {"refused", refusal.is_null() ? Json(nullptr) : refusal.at("error")},
          {"behaviour", behaviour.is_null() ? Json(nullptr) : behaviour.at("kind")},
          {"counted", integerAt(row, 8) != 0},
          {"events_new", integerAt(row, 9)},
          {"events_again", integerAt(row, 10)},
          {"events_without_id", integerAt(row, 11)},
          {"impressions", integerAt(row, 12)},
          {"sent", integerAt(row, 13) != 0},
          {"status", integerAt(row, 14)},
          {"install", bytesAt(row, 15)},
          {"about", bytesAt(row, 16)}};
}

}  // namespace morvik_service
