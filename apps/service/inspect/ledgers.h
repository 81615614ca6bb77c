// The ledgers that devices report: the latest of each device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "apps/service/base/json.h"
#include "apps/service/base/times.h"

namespace morvik_service {

/// At most this many devices are kept; past it the ledger reported longest ago is discarded.
inline constexpr std::size_t kMaxLedgers = 200;
/// A longer ledger is refused.
inline constexpr std::size_t kMaxLedgerBytes = std::size_t{64} * 1024;
/// The largest number in a ledger. Every JSON reader reads it exactly, and the sums of a ledger do not overflow.
inline constexpr std::int64_t kMaxLedgerCount = 1'000'000'000'000'000;

/// Not thread-safe. In memory only, like the behaviours: a device reports it again.
class Ledgers {
 public:
  explicit Ledgers(Clock clock) : clock_(std::move(clock)) {}

  /// Reads {"install":ID,"accounts":[{"kind","recorded","delivered","stored","under_way","given_up",
  /// "found_uncounted"}],"given_up":[{"kind","count","reason","by_rule"}]} and replaces that install's previous
  /// ledger. Throws Refusal 400 that names the member, or 413.
  void tell(const std::string& text);

  /// The device's ledger as reported, with "time" and derived values: "balances" for each account and for all, and
  /// "sound": it balances, and nothing was given up except by a rule. Null if it reported none.
  Json of(const std::string& install) const;
  /// All, the most recently reported first.
  Json list() const;

  /// Grows with every reported ledger.
  std::uint64_t told() const { return told_; }
  std::size_t size() const { return latest_.size(); }

 private:
  const Clock clock_;
  std::vector<Json> latest_;  ///< the most recently reported last
  std::uint64_t told_ = 0;
};

}  // namespace morvik_service
