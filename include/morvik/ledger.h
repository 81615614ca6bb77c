// What became of all that a device recorded: the account that the kit keeps of itself, in the same transactions as what
// it counts. A plain value; MorvikCore::ledger() hands it out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace morvik {

struct Ledger {
  /// So many were given up for this reason.
  struct GivenUp {
    /// In words for people, one of those in docs/guarantees.md.
    std::string reason;
    uint64_t count = 0;
    /// False: no rule lets them go. Something is wrong with the kit, or with the file of its store.
    bool by_rule = true;
  };

  /// Of one kind of records.
  struct Account {
    /// "activities", "impressions", "re-engagement clicks", "commerce clicks", "crash reports" or "demographics".
    std::string kind;
    uint64_t recorded = 0;
    /// The service said that it has them, each counted once.
    uint64_t delivered = 0;
    /// They lie in the store now, and are sent until the service has them.
    uint64_t stored = 0;
    /// In a request alone: not in the store yet, or no more.
    uint64_t under_way = 0;
    /// Those reasons alone that occurred.
    std::vector<GivenUp> given_up;
    /// So many of those recorded were found in the store at a start without having been counted: an older version of
    /// the kit stored them, or something is wrong.
    uint64_t found_uncounted = 0;

    uint64_t givenUp() const {
      uint64_t sum = 0;
      for (const GivenUp& each : given_up)
        sum += each.count;
      return sum;
    }
    /// Nothing is missing and nothing is counted twice.
    bool balances() const { return recorded == delivered + stored + under_way + givenUp(); }
    /// It balances, and what was given up was given up by a rule.
    bool isSound() const {
      bool sound = balances() && found_uncounted == 0;
      for (const GivenUp& each : given_up)
        sound = sound && each.by_rule;
      return sound;
    }
  };

  /// So often something that the app handed over was refused, for this reason: it was never recorded, and is in no
  /// account. Written with the next change of an account, or when the kit stops.
  struct Refused {
    std::string reason;  ///< as morvik::toText() says it
    uint64_t count = 0;
  };

  /// One for each kind, always in the order that `kind` tells.
  std::vector<Account> accounts;
  /// Those reasons alone that occurred.
  std::vector<Refused> refused;

  /// All accounts do.
  bool balances() const {
    bool all = true;
    for (const Account& account : accounts)
      all = all && account.balances();
    return all;
  }
  /// All accounts are.
  bool isSound() const {
    bool all = true;
    for (const Account& account : accounts)
      all = all && account.isSound();
    return all;
  }
  /// The account of that kind; an empty one for a name that is none.
  Account of(std::string_view kind) const {
    for (const Account& account : accounts) {
      if (account.kind == kind)
        return account;
    }
    return {};
  }
};

}  // namespace morvik
