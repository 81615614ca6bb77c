// Which values in the store are what the file says, whatever else a process began with, and which are what the process
// says.
#pragma once

#include <string>
#include <vector>

#include "host/ledger/ledger_accounts.h"
#include "host/siblings/kept_identifier.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik::host {

/// For a store whose file comes to light late: the device stays the one that it was, and the account goes on where it
/// was (LedgerBook::storeCameToLight() adds what was counted meanwhile).
inline std::vector<std::string> namesThatTheFileDecides() {
  std::vector<std::string> names = namesMadeOnce();
  names.emplace_back(kLedgerKey);
  names.emplace_back(kDemographicSetsKey);
  return names;
}

/// The ids that a batch of an earlier process noted mean nothing to the answer that this one waits for: joined, it
/// would delete what it never carried.
inline std::vector<std::string> namesThatTheProcessDecides() {
  return {services::property::fendoActivityInfosSentEventKeys};
}

}  // namespace morvik::host
