#include "apps/service/inspect/ledgers.h"

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "apps/service/base/refusal.h"
#include "apps/service/checks/member_rules.h"

namespace morvik_service {
namespace {

constexpr const char* kWhereLedger = "the ledger";
constexpr std::array<MemberRule, 3> kLedger = {
    {{"install"}, {"accounts", MemberType::kArray}, {"given_up", MemberType::kArray}}};
constexpr std::array<MemberRule, 7> kAccount = {{{"kind"},
                                                 {"recorded", MemberType::kInteger},
                                                 {"delivered", MemberType::kInteger},
                                                 {"stored", MemberType::kInteger},
                                                 {"under_way", MemberType::kInteger},
                                                 {"given_up", MemberType::kInteger},
                                                 {"found_uncounted", MemberType::kInteger}}};
constexpr std::array<MemberRule, 4> kGivenUp = {
    {{"kind"}, {"count", MemberType::kInteger}, {"reason"}, {"by_rule", MemberType::kBoolean}}};

std::int64_t number(const Json& object, const char* name) {
  return object.at(name).get<std::int64_t>();
}

// Texts are not empty, and numbers are counts.
void requireWordsAndCounts(const Json& object, const Place& place) {
  for (const auto& [name, value] : object.items()) {
    if (value.is_string() && value.get_ref<const std::string&>().empty())
      throw badMember("is empty", place.path(name));
    if (value.is_number_integer() && (value < 0 || value > kMaxLedgerCount))
      throw badMember("is not a number from 0 to " + std::to_string(kMaxLedgerCount), place.path(name));
  }
}

std::int64_t givenUpOf(const Json& ledger, const Json& kind) {
  std::int64_t sum = 0;
  for (const Json& each : ledger.at("given_up"))
    sum += each.at("kind") == kind ? number(each, "count") : 0;
  return sum;
}

void requireLedger(const Json& ledger) {
  if (!ledger.is_object())
    throw Refusal(400, "the JSON is not an object", kWhereLedger, "send the ledger of one device");
  const Place top;
  requireExactly(ledger, kLedger, top);
  requireWordsAndCounts(ledger, top);
  std::set<std::string> kinds;
  requireEntries(ledger.at("accounts"), top.member("accounts"), [&](const Json& account, const Place& place) {
    requireExactly(account, kAccount, place);
    requireWordsAndCounts(account, place);
    if (!kinds.insert(account.at("kind").get<std::string>()).second)
      throw badMember("stands twice", place.path("kind"));
  });
  if (kinds.empty())
    throw badMember("is empty", "accounts");
  requireEntries(ledger.at("given_up"), top.member("given_up"), [&](const Json& each, const Place& place) {
    requireExactly(each, kGivenUp, place);
    requireWordsAndCounts(each, place);
    if (kinds.count(each.at("kind").get<std::string>()) == 0)
      throw badMember("is not the kind of any account", place.path("kind"));
  });
  requireEntries(ledger.at("accounts"), top.member("accounts"), [&](const Json& account, const Place& place) {
    if (number(account, "given_up") != givenUpOf(ledger, account.at("kind")))
      throw badMember("is not the sum of its reasons", place.path("given_up"));
  });
}

bool balances(const Json& account) {
  return number(account, "recorded") == number(account, "delivered") + number(account, "stored") +
                                            number(account, "under_way") + number(account, "given_up");
}

// Derived values are computed here: a device that counts wrongly would compute them wrongly too.
Json assessed(Json ledger) {
  bool all_balance = true;
  bool is_sound = true;
  for (Json& account : ledger.at("accounts")) {
    account["balances"] = balances(account);
    all_balance = all_balance && account.at("balances");
    is_sound = is_sound && number(account, "found_uncounted") == 0;
  }
  for (const Json& each : ledger.at("given_up"))
    is_sound = is_sound && each.at("by_rule");
  ledger["balances"] = all_balance;
  ledger["sound"] = all_balance && is_sound;
  return ledger;
}

}  // namespace

void Ledgers::tell(const std::string& text) {
  if (text.size() > kMaxLedgerBytes) {
    throw Refusal(413, "more than " + std::to_string(kMaxLedgerBytes) + " bytes of JSON", kWhereLedger,
                  "send the numbers of one device");
  }
  Json ledger = parseJson(text, kWhereLedger);
  requireLedger(ledger);
  const auto same = [&](const Json& each) { return each.at("install") == ledger.at("install"); };
  latest_.erase(std::remove_if(latest_.begin(), latest_.end(), same), latest_.end());
  if (latest_.size() == kMaxLedgers)
    latest_.erase(latest_.begin());
  Json kept = {{"install", ledger.at("install")}, {"time", isoTime(clock_())}};
  kept.update(assessed(std::move(ledger)));
  latest_.push_back(std::move(kept));
  ++told_;
}

Json Ledgers::of(const std::string& install) const {
  const auto found =
      std::find_if(latest_.begin(), latest_.end(), [&](const Json& each) { return each.at("install") == install; });
  return found == latest_.end() ? Json(nullptr) : *found;
}

Json Ledgers::list() const {
  Json all = Json::array();
  for (auto each = latest_.rbegin(); each != latest_.rend(); ++each)
    all.push_back(*each);
  return all;
}

}  // namespace morvik_service
