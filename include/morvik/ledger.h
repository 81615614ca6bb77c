// What became of everything that a device recorded. The kit keeps this account in the same transactions as the records
// that it counts. A plain value; MorvikCore::ledger() returns it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace morvik {

struct Ledger {
  /// How many records were given up for one reason.
  struct GivenUp {
    /// Readable text, one of those in docs/guarantees.md.
    std::string reason;
    uint64_t count = 0;
    /// False: no rule gives them up. Something is wrong with the kit, or with the file of its store.
    bool by_rule = true;
  };

  /// The account of one kind of record.
  struct Account {
    /// "activities", "impressions", "re-engagement clicks", "commerce clicks", "crash reports" or "demographics".
    std::string kind;
    uint64_t recorded = 0;
    /// The service confirmed that it has them, each counted once.
    uint64_t delivered = 0;
    /// They are in the store now, and are sent until the service has them.
    uint64_t stored = 0;
    /// Only in a request: not yet in the store, or no longer.
    uint64_t under_way = 0;
    /// Only the reasons that occurred.
    std::vector<GivenUp> given_up;
    /// How many of those recorded were found in the store without having been counted: an older version of the kit
    /// stored them, or something is wrong.
    uint64_t found_uncounted = 0;

    uint64_t givenUp() const {
      uint64_t sum = 0;
      for (const GivenUp& each : given_up)
        sum += each.count;
      return sum;
    }
    /// True if nothing is missing and nothing is counted twice.
    bool balances() const { return recorded == delivered + stored + under_way + givenUp(); }
    /// True if it balances, nothing was found uncounted, and everything given up was given up by a rule.
    bool isSound() const {
      bool sound = balances() && found_uncounted == 0;
      for (const GivenUp& each : given_up)
        sound = sound && each.by_rule;
      return sound;
    }
  };

  /// How often a call of the app was refused for one reason: what it passed was never recorded, and is in no account.
  /// Written with the next change of an account, or when the kit stops.
  struct Refused {
    std::string reason;  ///< as morvik::toText() returns it
    uint64_t count = 0;
  };

  /// One for each kind, always in the order listed at `kind`.
  std::vector<Account> accounts;
  /// Only the reasons that occurred.
  std::vector<Refused> refused;

  /// True if all accounts balance.
  bool balances() const {
    bool all = true;
    for (const Account& account : accounts)
      all = all && account.balances();
    return all;
  }
  /// True if all accounts are sound.
  bool isSound() const {
    bool all = true;
    for (const Account& account : accounts)
      all = all && account.isSound();
    return all;
  }
  /// The account of that kind; an empty one for an unknown name.
  Account of(std::string_view kind) const {
    for (const Account& account : accounts) {
      if (account.kind == kind)
        return account;
    }
    return {};
  }
};

}  // namespace morvik
