#include "runtime/ledger/exchange_trail.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <unordered_set>
#include <utility>

#include "runtime/ledger/ledger_reasons.h"
#include "services/dates.h"
#include "services/endpoints.h"
#include "services/json_writer.h"
#include "services/text_codes.h"
#include "services/uuid.h"

namespace morvik::runtime {
namespace {

constexpr const char* kNumber = "n";
constexpr const char* kBegun = "begun";
constexpr const char* kIds = "ids";
constexpr const char* kOutcome = "outcome";
constexpr const char* kLeft = "left";
constexpr const char* kEnded = "ended";
constexpr const char* kStatus = "status";
constexpr const char* kError = "error";
constexpr const char* kReason = "reason";

constexpr std::array<std::string_view, 6> kOutcomes = {"accepted", "not accepted", "failed",
                                                       "not sent", "abandoned",    "answer unknown"};
constexpr std::string_view kAccepted = kOutcomes[0];
constexpr std::string_view kRefusedByService = kOutcomes[1];
constexpr const char* kNotAnswered = "under way";

constexpr size_t kMarkBytes = 8;
constexpr int64_t kMaxStatus = 999;

/// A hash that tells an id from all others: 64 bits of FNV-1a, mixed.
uint64_t markOf(std::string_view event_id) {
  uint64_t mark = 14'695'981'039'346'656'037U;
  for (const char c : event_id) {
    mark ^= static_cast<unsigned char>(c);
    mark *= 1'099'511'628'211U;
  }
  mark ^= mark >> 32U;
  mark *= 0xd6e8feb86659fd93U;
  return mark ^ mark >> 32U;
}

void appendMark(uint64_t mark, std::string& out) {
  for (size_t byte = 0; byte < kMarkBytes; ++byte)
    out.push_back(static_cast<char>(mark >> 8U * byte & 0xFFU));
}

kit::Value marksOf(const kit::Array& event_ids) {
  std::string bytes;
  bytes.reserve(event_ids.size() * kMarkBytes);
  for (const kit::Value& id : event_ids)
    appendMark(markOf(id.string()), bytes);
  std::string text;
  services::appendBase64Url(bytes, text);
  return text;
}

/// Recognizes one id.
class Mark {
 public:
  explicit Mark(std::string_view event_id) { appendMark(markOf(event_id), bytes_); }
  bool isIn(const kit::Value& marks) const {
    const auto bytes = services::fromBase64Url(marks.string());
    if (!bytes)
      return false;
    for (size_t at = 0; at + kMarkBytes <= bytes->size(); at += kMarkBytes) {
      if (bytes->compare(at, kMarkBytes, bytes_) == 0)
        return true;
    }
    return false;
  }

 private:
  std::string bytes_;
};

std::optional<Explanation::Time> timeIn(const kit::Value& date) {
  if (!date.isDate() || date.date() == kit::Date{})
    return std::nullopt;
  return Explanation::Time(
      std::chrono::duration_cast<Explanation::Time::duration>(std::chrono::microseconds(date.date().microseconds)));
}

/// Ids of version 7 begin with the milliseconds since 1970.
std::optional<kit::Date> dateInId(std::string_view id) {
  constexpr size_t kVersionAt = 14;
  if (!services::isUuid(id) || id[kVersionAt] != '7')
    return std::nullopt;
  const std::string digits = std::string(id.substr(0, 8)) + std::string(id.substr(9, 4));
  return kit::Date{std::stoll(digits, nullptr, 16) * 1000};
}

std::string textOf(kit::Date date) {
  return services::utcIsoDateText(date);
}

std::string textOf(Explanation::Time time) {
  return textOf(kit::Date{std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count()});
}

const kit::Value& endOf(const kit::Array& trail, const kit::Value& begin) {
  static const kit::Value none;
  for (const kit::Value& element : trail) {
    if (element[kNumber] == begin[kNumber] && !element[kOutcome].isAbsent())
      return element;
  }
  return none;
}

Explanation::Exchange exchangeOf(const kit::Value& begin, const kit::Value& end) {
  Explanation::Exchange exchange;
  exchange.begun = timeIn(begin[kBegun]).value_or(Explanation::Time());
  exchange.endpoint = services::kTrackingPath;
  exchange.left = timeIn(end[kLeft]);
  exchange.ended = timeIn(end[kEnded]);
  exchange.outcome = end.isAbsent() ? kNotAnswered : std::string(end[kOutcome].string());
  exchange.http_status = static_cast<int>(end[kStatus].integer());
  exchange.error = end[kError].string();
  if (exchange.outcome == kRefusedByService && exchange.error.empty())
    exchange.error = "the answer does not accept it";
  return exchange;
}

/// The words of the ledger's row for activities.
std::string wordsOf(std::string_view key) {
  for (const LedgerRule& rule : ledgerRules()) {
    if (rule.kind == LedgerKind::kActivities && rule.key == key)
      return rule.words;
  }
  return "unexplained";
}

const kit::Value* storedRecord(const kit::Array& activities, std::string_view event_id) {
  const auto found = std::find_if(activities.begin(), activities.end(), [event_id](const kit::Value& record) {
    return record["activityEventID"].string() == event_id;
  });
  return found == activities.end() ? nullptr : &*found;
}

std::string sentenceOf(const Explanation::Exchange& exchange) {
  std::string text = "carried by a request of " + textOf(exchange.left.value_or(exchange.begun)) + " to " +
                     exchange.endpoint + " (" + exchange.outcome;
  if (exchange.http_status != 0)
    text += ", status " + std::to_string(exchange.http_status);
  if (!exchange.error.empty())
    text += ": " + exchange.error;
  return text + ")";
}

bool isUnderWay(const Explanation& explanation) {
  return !explanation.exchanges.empty() && explanation.exchanges.back().outcome == kNotAnswered;
}

std::string pendingText(const Explanation& explanation) {
  if (isUnderWay(explanation))
    return "stored until that is answered";
  return explanation.exchanges.empty() ? "waiting in the store" : "waiting in the store to be sent again";
}

/// Nobody read an answer to a request that may have left.
bool mayHaveArrived(const Explanation& explanation) {
  return std::any_of(explanation.exchanges.begin(), explanation.exchanges.end(), [](const auto& exchange) {
    return exchange.outcome == "answer unknown" || exchange.outcome == "abandoned";
  });
}

std::string stateText(const Explanation& explanation) {
  switch (explanation.state) {
    case Explanation::State::kPending:
      return pendingText(explanation);
    case Explanation::State::kDelivered:
      return "delivered";
    case Explanation::State::kGivenUp:
      return "given up: " + explanation.reason + (mayHaveArrived(explanation) ? "; the service may have it" : "");
    default:
      return isUnderWay(explanation) ? "no longer in the store; the answer decides"
                                     : "no longer in the store; whether the service has it is not known";
  }
}

std::string sentenceOf(const Explanation& explanation) {
  std::string text = explanation.recorded ? "recorded " + textOf(*explanation.recorded) + "; " : "";
  for (const Explanation::Exchange& exchange : explanation.exchanges)
    text += sentenceOf(exchange) + "; ";
  return text + stateText(explanation);
}

Explanation::State stateOf(const Explanation& explanation, bool is_stored) {
  using State = Explanation::State;
  if (is_stored)
    return State::kPending;
  const auto is_accepted = [](const Explanation::Exchange& exchange) { return exchange.outcome == kAccepted; };
  if (std::any_of(explanation.exchanges.begin(), explanation.exchanges.end(), is_accepted))
    return State::kDelivered;
  if (isUnderWay(explanation))
    return State::kUnclear;
  if (!explanation.reason.empty())
    return State::kGivenUp;
  if (!explanation.exchanges.empty())
    return State::kUnclear;
  return services::isUuid(explanation.event_id) ? State::kUnknown : State::kNotAnId;
}

size_t bytesOf(const kit::Value& element) {
  return kTrailElementBytes + element[kIds].string().size() + element[kError].string().size();
}

bool isExchange(const kit::Value& element) {
  return !element[kIds].isAbsent();
}

/// Of an element that begins or ends a batch.
uint64_t numberOf(const kit::Value& element) {
  return static_cast<uint64_t>(element[kNumber].integer());
}

bool hasNumber(const kit::Value& element) {
  return element[kNumber].integer() > 0 && numberOf(element) <= kMaxTrailNumber;
}

bool hasMarks(const kit::Value& element) {
  if (!element[kIds].isString())
    return false;
  const auto bytes = services::fromBase64Url(element[kIds].string());
  return bytes && bytes->size() % kMarkBytes == 0;
}

bool isDateOrAbsent(const kit::Value& value) {
  return value.isAbsent() || value.isDate();
}

bool isBegin(const kit::Value& element) {
  return element[kBegun].isDate() && hasNumber(element) && hasMarks(element) && element[kOutcome].isAbsent() &&
         element[kReason].isAbsent();
}

bool isGivenUp(const kit::Value& element) {
  return element[kReason].isString() && element[kEnded].isDate() && hasMarks(element) && element[kNumber].isAbsent() &&
         element[kOutcome].isAbsent();
}

bool isEnd(const kit::Value& element) {
  const kit::Value& status = element[kStatus];
  const kit::Value& error = element[kError];
  return element[kIds].isAbsent() && hasNumber(element) && isDateOrAbsent(element[kLeft]) &&
         isDateOrAbsent(element[kEnded]) &&
         std::find(kOutcomes.begin(), kOutcomes.end(), element[kOutcome].string()) != kOutcomes.end() &&
         (status.isAbsent() || (status.integer() > 0 && status.integer() <= kMaxStatus)) &&
         (error.isAbsent() || (error.isString() && error.string().size() <= kMaxTrailErrorBytes));
}

/// Each batch begins once, then ends at most once.
class SoundElements {
 public:
  bool take(const kit::Value& element) {
    if (isBegin(element))
      return begun_.insert(numberOf(element)).second;
    if (isEnd(element))
      return begun_.contains(numberOf(element)) && ended_.insert(numberOf(element)).second;
    return isGivenUp(element);
  }

 private:
  std::unordered_set<uint64_t> begun_;
  std::unordered_set<uint64_t> ended_;
};

std::string cutError(std::string_view error) {
  std::string text;
  services::appendRepairedUtf8(error, text);
  if (text.size() > kMaxTrailErrorBytes)
    text.resize(services::wellFormedBytes(std::string_view(text).substr(0, kMaxTrailErrorBytes)));
  return text;
}

std::string lowerCase(std::string_view id) {
  std::string text(id);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

void collectExchanges(const kit::Array& trail, Explanation& explanation) {
  const Mark mark(explanation.event_id);
  for (const kit::Value& element : trail) {
    if (!isExchange(element) || !mark.isIn(element[kIds]))
      continue;
    if (element[kReason].isAbsent())
      explanation.exchanges.push_back(exchangeOf(element, endOf(trail, element)));
    else
      explanation.reason = wordsOf(element[kReason].string());
  }
}

std::optional<Explanation::Time> recordedAt(const kit::Value* record, std::string_view event_id) {
  if (record != nullptr && (*record)["activityCreatedAt"].isDate())
    return timeIn((*record)["activityCreatedAt"]);
  const auto date = dateInId(event_id);
  return date ? timeIn(*date) : std::nullopt;
}

}  // namespace

kit::Value trailBegin(uint64_t number, kit::Date begun, const kit::Array& event_ids) {
  return kit::Dictionary{{kNumber, static_cast<int64_t>(number)}, {kBegun, begun}, {kIds, marksOf(event_ids)}};
}

kit::Value trailEnd(const TrailEnd& end) {
  kit::MutableDictionary element;
  element.set(kNumber, static_cast<int64_t>(end.number));
  element.set(kOutcome, kOutcomes[static_cast<size_t>(end.outcome)]);
  if (end.left != kit::Date{})
    element.set(kLeft, end.left);
  if (end.ended != kit::Date{})
    element.set(kEnded, end.ended);
  if (end.status_code != 0)
    element.set(kStatus, end.status_code);
  if (!end.error.empty())
    element.set(kError, cutError(end.error));
  return kit::Value(std::move(element));
}

kit::Value trailGivenUp(kit::Date when, std::string_view reason, const kit::Array& event_ids) {
  return kit::Dictionary{{kReason, reason}, {kEnded, when}, {kIds, marksOf(event_ids)}};
}

SoundTrail soundTrail(const kit::Value& stored) {
  if (stored.isAbsent())
    return {};
  if (!stored.isArray())
    return {{}, 1};
  SoundElements elements;
  kit::MutableArray kept{stored};
  kept.retainIf([&elements](const kit::Value& element) { return elements.take(element); });
  kit::Value trail(std::move(kept));
  const size_t dropped = stored.size() - trail.size();
  return {dropped == 0 ? stored : trail, dropped};
}

uint64_t nextTrailNumber(const kit::Value& trail) {
  uint64_t last = 0;
  for (const kit::Value& element : trail.array())
    last = std::max(last, numberOf(element));
  return last + 1;
}

bool isOpen(const kit::Value& trail, uint64_t number) {
  bool is_open = false;
  for (const kit::Value& element : trail.array()) {
    if (numberOf(element) == number)
      is_open = isExchange(element);
  }
  return is_open;
}

kit::Array endsOfEarlierOnes(const kit::Value& trail, uint64_t first) {
  std::unordered_set<uint64_t> ended;
  for (const kit::Value& element : trail.array()) {
    if (!element[kOutcome].isAbsent())
      ended.insert(numberOf(element));
  }
  kit::MutableArray ends;
  for (const kit::Value& element : trail.array()) {
    const uint64_t number = numberOf(element);
    if (!element[kBegun].isAbsent() && number < first && !ended.contains(number))
      ends.append(trailEnd({.number = number}));
  }
  return kit::Value(std::move(ends)).array();
}

TrailExtent extentOf(const kit::Value& trail, kit::Date now) {
  const kit::Array elements = trail.array();
  const auto oldest = std::find_if(elements.begin(), elements.end(), isExchange);
  if (oldest == elements.end())
    return {0, now};
  const kit::Value& begun = (*oldest)[kBegun];
  return {static_cast<size_t>(std::count_if(oldest, elements.end(), isExchange)),
          begun.isDate() ? begun.date() : (*oldest)[kEnded].date()};
}

bool isTrailTooLong(const kit::Value& trail) {
  size_t bytes = 0;
  size_t exchanges = 0;
  for (const kit::Value& element : trail.array()) {
    bytes += bytesOf(element);
    exchanges += size_t{isExchange(element)};
  }
  return bytes > kMaxTrailBytes || exchanges > kMaxTrailExchanges;
}

kit::Value shortenedTrail(const kit::Value& trail) {
  const kit::Array elements = trail.array();
  size_t first = elements.size();
  size_t bytes = 0;
  size_t exchanges = 0;
  std::unordered_set<uint64_t> begun;
  for (; first > 0; --first) {
    const kit::Value& element = elements[first - 1];
    bytes += bytesOf(element);
    exchanges += size_t{isExchange(element)};
    if (bytes > kMaxTrailBytes || exchanges > kMaxTrailExchanges)
      break;
    if (!element[kBegun].isAbsent())
      begun.insert(numberOf(element));
  }
  kit::MutableArray kept{trail};
  size_t index = 0;
  kept.retainIf([&](const kit::Value& element) {
    return index++ >= first && (isExchange(element) || begun.contains(numberOf(element)));
  });
  return kit::Value(std::move(kept));
}

Explanation explain(const kit::Value& trail, const kit::Value& activities, std::string_view event_id, kit::Date now) {
  const kit::Value sound = soundTrail(trail).trail;
  const kit::Array elements = sound.array();
  const kit::Array stored = activities.array();
  const kit::Value* record = storedRecord(stored, event_id);
  Explanation explanation;
  explanation.event_id = event_id;
  collectExchanges(elements, explanation);
  explanation.state = stateOf(explanation, record != nullptr);
  if (explanation.state == Explanation::State::kNotAnId) {
    explanation.sentence =
        "not an event id: 36 characters are expected, such as 018f3406-9e00-7abc-8def-0123456789ab (hexadecimal digits "
        "and four hyphens)";
    return explanation;
  }
  if (explanation.state == Explanation::State::kUnknown) {
    if (const std::string lower = lowerCase(event_id); lower != event_id)
      return explain(trail, activities, lower, now);
    explanation.sentence =
        "not known: delivered or given up before " + textOf(extentOf(sound, now).oldest) + ", or never recorded here";
    return explanation;
  }
  if (explanation.state != Explanation::State::kGivenUp)
    explanation.reason.clear();
  explanation.recorded = recordedAt(record, event_id);
  explanation.sentence = sentenceOf(explanation);
  return explanation;
}

}  // namespace morvik::runtime
