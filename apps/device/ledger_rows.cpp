#include "apps/device/ledger_rows.h"

#include <utility>

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

kit::Value countValue(uint64_t count) {
  return kit::Value(static_cast<int64_t>(count));
}

kit::Value rowOf(const morvik::Ledger::Account& account) {
  return kit::Dictionary{{"kind", account.kind},
                         {"recorded", countValue(account.recorded)},
                         {"delivered", countValue(account.delivered)},
                         {"stored", countValue(account.stored)},
                         {"under_way", countValue(account.under_way)},
                         {"given_up", countValue(account.givenUp())},
                         {"found_uncounted", countValue(account.found_uncounted)}};
}

kit::Value rowOf(const std::string& kind, const morvik::Ledger::GivenUp& given_up) {
  return kit::Dictionary{{"kind", kind},
                         {"count", countValue(given_up.count)},
                         {"reason", given_up.reason},
                         {"by_rule", given_up.by_rule}};
}

}  // namespace

kit::Value LedgerRows::of(std::string_view kind) const {
  for (const kit::Value& account : accounts) {
    if (account["kind"].string() == kind)
      return account;
  }
  return {};
}

kit::MutableDictionary LedgerRows::asDictionary() const {
  kit::MutableDictionary all;
  all.set("balances", balances);
  all.set("sound", is_sound);
  all.set("accounts", accounts);
  all.set("given_up", given_up);
  return all;
}

LedgerRows rowsOf(const morvik::Ledger& ledger) {
  kit::MutableArray accounts;
  kit::MutableArray given_up;
  for (const morvik::Ledger::Account& account : ledger.accounts) {
    accounts.append(rowOf(account));
    for (const morvik::Ledger::GivenUp& each : account.given_up)
      given_up.append(rowOf(account.kind, each));
  }
  return {ledger.balances(), ledger.isSound(), kit::Value(std::move(accounts)).array(),
          kit::Value(std::move(given_up)).array()};
}

}  // namespace morvik_device
