// A ledger as rows: the same form for the verb, an inspected store and the report to a service.
#pragma once

#include <string_view>

#include "kit/value.h"
#include "morvik/ledger.h"

namespace morvik_device {

struct LedgerRows {
  bool balances = true;
  bool is_sound = true;
  /// One for each kind: {"kind":"activities","recorded":9,"delivered":6,"stored":2,"under_way":0,"given_up":1,
  /// "found_uncounted":0}.
  morvik::kit::Array accounts;
  /// One for each reason that occurred: {"kind":"activities","count":1,"reason":…,"by_rule":true}.
  morvik::kit::Array given_up;

  /// The account of that kind; absent if there is none.
  morvik::kit::Value of(std::string_view kind) const;
  /// {"balances":…,"sound":…,"accounts":[…],"given_up":[…]}
  morvik::kit::MutableDictionary asDictionary() const;
};

LedgerRows rowsOf(const morvik::Ledger& ledger);

}  // namespace morvik_device
