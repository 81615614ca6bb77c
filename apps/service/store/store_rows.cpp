#include "apps/service/store/store_rows.h"

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

// Form bodies are ASCII; whatever else arrives is shown without losing a bit.
void showBody(Json& shown, std::string_view bytes) {
  if (isPlainText(bytes)) {
    shown["body"] = bytes;
  } else {
    shown["body_base64url"] = encodeBase64Url(bytes);
  }
}

Json storedJson(const Statement& row, int column) {
  return row.isNull(column) ? Json(nullptr) : Json::parse(row.bytes(column));
}

const std::string_view kSelectRequest =
    "SELECT id, time_ms, endpoint, method, path, headers, body, body_bytes, payload, refusal, behaviour, counted,"
    " events_new, events_again, events_without_id, impressions, answered, status, answer, answer_bytes FROM requests";

Json requestRow(const Statement& row) {
  Json shown = {{"id", row.integer(0)},        {"time", isoTime(row.integer(1))},
                {"endpoint", row.bytes(2)},    {"method", row.bytes(3)},
                {"path", row.bytes(4)},        {"headers", storedJson(row, 5)},
                {"body_bytes", row.integer(7)}};
  showBody(shown, row.bytes(6));
  shown["payload"] = storedJson(row, 8);
  shown["refusal"] = storedJson(row, 9);
  shown["behaviour"] = storedJson(row, 10);
  shown["counted"] = row.integer(11) != 0;
  shown["events_new"] = row.integer(12);
  shown["events_again"] = row.integer(13);
  shown["events_without_id"] = row.integer(14);
  shown["impressions"] = row.integer(15);
  shown["answer"] = {{"sent", row.integer(16) != 0},
                     {"status", row.integer(17)},
                     {"body", row.bytes(18)},
                     {"body_bytes", row.integer(19)}};
  return shown;
}

const std::string_view kSelectSummary =
    "SELECT id, time_ms, endpoint, method, path, body_bytes, refusal, behaviour, counted, events_new, events_again,"
    " events_without_id, impressions, answered, status, install, about FROM requests";

Json summaryRow(const Statement& row) {
  const Json refusal = storedJson(row, 6);
  const Json behaviour = storedJson(row, 7);
  return {{"id", row.integer(0)},
          {"time", isoTime(row.integer(1))},
          {"endpoint", row.bytes(2)},
          {"method", row.bytes(3)},
          {"path", row.bytes(4)},
          {"body_bytes", row.integer(5)},
          {"refused", refusal.is_null() ? Json(nullptr) : refusal.at("error")},
          {"behaviour", behaviour.is_null() ? Json(nullptr) : behaviour.at("kind")},
          {"counted", row.integer(8) != 0},
          {"events_new", row.integer(9)},
          {"events_again", row.integer(10)},
          {"events_without_id", row.integer(11)},
          {"impressions", row.integer(12)},
          {"sent", row.integer(13) != 0},
          {"status", row.integer(14)},
          {"install", row.bytes(15)},
          {"about", row.bytes(16)}};
}

}  // namespace morvik_service
