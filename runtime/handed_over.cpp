#include "runtime/handed_over.h"

#include <array>
#include <utility>

#include "runtime/after_recording.h"
#include "services/converters.h"

namespace morvik::runtime {
namespace {

// Fields of an entry.
constexpr const char* kKind = "kind";
constexpr const char* kText = "text";
constexpr const char* kTime = "time";
constexpr const char* kIsFirstLaunch = "first_launch";
constexpr const char* kIsCommerceRecorded = "commerce_recorded";

/// By HandedOver::Kind.
constexpr std::array kKindNames = {"url", "facebook", "third_party"};

kit::Value recordOf(const HandedOver::Entry& entry) {
  return kit::Dictionary{{kKind, kKindNames[static_cast<size_t>(entry.kind)]},
                         {kText, entry.text},
                         {kTime, entry.time},
                         {kIsFirstLaunch, entry.is_first_launch}};
}

/// Nothing for a kind that this version does not know.
std::optional<HandedOver::Entry> entryOf(const kit::Value& record) {
  for (size_t kind = 0; kind < kKindNames.size(); ++kind) {
    if (record[kKind].string() == kKindNames[kind])
      return HandedOver::Entry{.kind = static_cast<HandedOver::Kind>(kind),
                               .text = record[kText].string(),
                               .time = record[kTime].date(),
                               .is_first_launch = record[kIsFirstLaunch].boolean(),
                               .is_commerce_recorded = record[kIsCommerceRecorded].boolean()};
  }
  return std::nullopt;
}

/// Ends what handleAll() began, even if the store throws.
struct Handling {
  bool& is_handling;
  ~Handling() { is_handling = false; }
};

}  // namespace

void HandedOver::begin() {
  if (store_.arrayForKey(kHandedOverKey).size() > 0)
    handleLater();
}

Recorded HandedOver::take(const Entry& entry) {
  if (entry.text.size() > kMaxHandedOverBytes)
    return Recorded::kRefusedTooLarge;
  const kit::Value record = recordOf(entry);
  const bool has_room = store_.atTheDoor([this, &record] {
    if (store_.arrayForKey(kHandedOverKey).size() >= kMaxHandedOver)
      return false;
    store_.append(kHandedOverKey, record);
    return true;
  });
  if (!has_room)
    return Recorded::kRefusedTooMany;
  const Recorded recorded = keptBy(logger_, [this] { return store_.synchronize(); });
  afterRecording(logger_, [this] {
    if (main_loop_.isMainThread())
      main_loop_.runOnMain([this] { handleAll(); });
    else
      handleLater();
  });
  return recorded;
}

void HandedOver::setHeld(bool held) {
  is_held_ = held;
  if (!held)
    handleLater();
}

void HandedOver::handleLater() {
  main_loop_.async([this] { handleSome(); });
}

void HandedOver::handleSome() {
  if (handleUpTo(kMaxHandledAtOnce))
    handleLater();
}

void HandedOver::handleAll() {
  while (handleUpTo(kMaxHandledAtOnce) && !stop_.isMade()) {
  }
}

/// False: nothing is left to handle now. What a handler itself hands over is handled after it.
bool HandedOver::handleUpTo(size_t count) {
  if (std::exchange(is_handling_, true))
    return false;
  const Handling handling{is_handling_};
  for (size_t handled = 0; handled < count; ++handled) {
    if (is_held_ || in_doubt_() || !handleFirst())
      return false;
  }
  return true;
}

/// An entry is removed once it was handled, in the same commit: after a crash in between it is handled twice, but never
/// lost.
bool HandedOver::handleFirst() {
  const kit::Array entries = store_.arrayForKey(kHandedOverKey).array();
  if (entries.empty())
    return false;
  handled_ = entries[0];
  if (const auto entry = entryOf(entries[0]))
    handler_(*entry);
  store_.inOneStep([this] {
    const kit::Value stored = store_.arrayForKey(kHandedOverKey);
    kit::MutableArray rest(stored);
    rest.removeAt(placeOfHandled(stored.array()));
    store_.replace(kHandedOverKey, stored, kit::Value(std::move(rest)));
  });
  handled_ = {};
  return true;
}

void HandedOver::commerceWasRecorded() {
  const kit::Value stored = store_.arrayForKey(kHandedOverKey);
  const size_t place = placeOfHandled(stored.array());
  if (place == stored.size())
    return;
  kit::MutableDictionary marked(handled_);
  marked.set(kIsCommerceRecorded, true);
  handled_ = kit::Value(std::move(marked));
  kit::MutableArray entries(stored);
  entries.replaceAt(place, handled_);
  store_.replace(kHandedOverKey, stored, kit::Value(std::move(entries)));
}

/// A store that recovers meanwhile inserts its file's entries before this one. Returns the size if the entry is gone.
size_t HandedOver::placeOfHandled(const kit::Array& entries) const {
  size_t place = 0;
  while (place < entries.size() && !entries[place].identicalTo(handled_))
    ++place;
  return place;
}

}  // namespace morvik::runtime
