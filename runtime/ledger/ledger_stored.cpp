#include "runtime/ledger/ledger_stored.h"

#include <algorithm>
#include <utility>

#include "services/converters.h"

namespace morvik::runtime {
namespace {

using Kind = LedgerKind;

struct CountedList {
  std::string_view key;
  Kind kind;
};
constexpr std::array kLists = {CountedList{"fendoActivityInfos", Kind::kActivities},
                               CountedList{"fendoImpressionInfos", Kind::kImpressions},
                               CountedList{"reEngagementInfos", Kind::kReEngagementClicks},
                               CountedList{"commerceConversionInfos", Kind::kCommerceClicks},
                               CountedList{"MorvikCoreUserInfo_Crash", Kind::kCrashReports}};

constexpr std::array<std::string_view, kDemographicValues> kDemographicKeys = {
    "fendoUserDemoInfo_age", "fendoUserDemoInfo_gender", "fendoUserDemoInfo_userId"};
constexpr std::array<std::string_view, kDemographicValues> kDemoKeys = {"age", "gender", "userId"};
constexpr size_t kUserIdSlot = 2;

/// An age or gender with this value is not pending.
constexpr int64_t kNonePending = -1;

std::string_view listKey(Kind kind) {
  return std::find_if(kLists.begin(), kLists.end(), [kind](const CountedList& each) { return each.kind == kind; })->key;
}

}  // namespace

LedgerKey ledgerKeyOf(std::string_view key) {
  for (const CountedList& list : kLists) {
    if (list.key == key)
      return {.part = LedgerKey::Part::kList, .kind = list.kind};
  }
  for (size_t slot = 0; slot < kDemographicValues; ++slot) {
    if (kDemographicKeys[slot] == key)
      return {.part = LedgerKey::Part::kDemographic, .kind = Kind::kDemographics, .slot = slot};
  }
  return {};
}

std::string_view LedgerStored::keyOf(size_t slot) {
  return kDemographicKeys[slot];
}

std::optional<size_t> LedgerStored::slotOf(std::string_view demo_key) {
  const auto* found = std::find(kDemoKeys.begin(), kDemoKeys.end(), demo_key);
  return found == kDemoKeys.end() ? std::nullopt : std::optional(static_cast<size_t>(found - kDemoKeys.begin()));
}

bool LedgerStored::isPending(size_t slot, const kit::Value& value) {
  return slot == kUserIdSlot ? value.isString() : value.isNumber() && services::checkNilToZero(value) != kNonePending;
}

LedgerStored::LedgerStored(const kit::KeyValueStore& store) : store_(store) {
  for (const CountedList& list : kLists)
    lists_[indexOf(list.kind)] = store_.get(list.key);
  for (size_t slot = 0; slot < kDemographicValues; ++slot)
    takeDemographic(slot);
  sets_ = DemographicSets::from(store_.get(kDemographicSetsKey));
}

LedgerAccounts::Stored LedgerStored::recordedUnwritten() const {
  return {.activities = count(Kind::kActivities),
          .impressions = count(Kind::kImpressions),
          .demographics = sets_,
          .demographics_waiting = count(Kind::kDemographics)};
}

uint64_t LedgerStored::count(Kind kind) const {
  if (kind != Kind::kDemographics)
    return list(kind).size();
  return static_cast<uint64_t>(std::count_if(versions_.begin(), versions_.end(), [](uint64_t v) { return v != 0; }));
}

LedgerCounts LedgerStored::counts() const {
  LedgerCounts counts{};
  for (size_t i = 0; i < kLedgerKinds; ++i)
    counts[i] = count(static_cast<Kind>(i));
  return counts;
}

void LedgerStored::setList(Kind kind, const kit::Value& list) {
  lists_[indexOf(kind)] = list;
}

LedgerStored::Replaced LedgerStored::setDemographic(size_t slot, const kit::Value& value) {
  was_set_[slot] = true;
  const bool is_pending = isPending(slot, value);
  const uint64_t version = std::exchange(versions_[slot], is_pending ? ++last_version_ : 0);
  sets_.pending += is_pending ? 1 : 0;
  sets_.all += is_pending || version != 0 ? 1 : 0;
  return {.version = version, .is_pending = is_pending};
}

void LedgerStored::takeBack(const Demographics& before) {
  versions_ = before.versions;
  sets_ = before.sets;
  was_set_ = before.was_set;
}

LedgerStored::Growth LedgerStored::lookAgainAtList(Kind kind) {
  kit::Value& known = lists_[indexOf(kind)];
  kit::Value found = store_.get(listKey(kind));
  if (found.identicalTo(known))
    return {};
  known.swap(found);
  const size_t before = found.size();
  const size_t kept = std::min(known.size(), before);
  return {.more = known.size() - kept, .fewer = before - kept, .before = std::move(found)};
}

/// Whether the store has a pending value that was not known.
bool LedgerStored::takeDemographic(size_t slot) {
  if (versions_[slot] != 0 || !isPending(slot, store_.get(kDemographicKeys[slot])))
    return false;
  versions_[slot] = ++last_version_;
  return true;
}

LedgerStored::Growth LedgerStored::lookAgainAtDemographics() {
  Growth growth;
  for (size_t slot = 0; slot < kDemographicValues; ++slot)
    growth.more += takeDemographic(slot) ? 1U : 0U;
  return growth;
}

/// Lists of the file go before those of this process. Of a demographic value the newer one counts: a value set in this
/// process hides the file's.
LedgerAccounts::Found LedgerStored::lookAgainInTheLight() {
  LedgerAccounts::Found found;
  for (const CountedList& list : kLists)
    found.stored[indexOf(list.kind)] = lookAgainAtList(list.kind).more;
  found.stored[indexOf(Kind::kDemographics)] = lookAgainAtDemographics().more;
  const DemographicSets of_file = DemographicSets::from(store_.get(kDemographicSetsKey));
  sets_.pending += of_file.pending;
  sets_.all += of_file.all;
  found.demographics_set_since = static_cast<uint64_t>(std::count(was_set_.begin(), was_set_.end(), true));
  return found;
}

}  // namespace morvik::runtime
