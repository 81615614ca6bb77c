// Which of the host's own values in the store are what the file says, whatever else a process began with.
#pragma once

#include <string>
#include <vector>

#include "host/ledger/ledger_accounts.h"
#include "host/siblings/kept_identifier.h"

namespace morvik::host {

/// For a store whose file comes to light late: the device stays the one that it was, and the account goes on where it
/// was (LedgerBook::storeCameToLight() adds what was counted meanwhile).
inline std::vector<std::string> namesThatTheFileDecides() {
  std::vector<std::string> names = namesMadeOnce();
  names.emplace_back(kLedgerKey);
  return names;
}

}  // namespace morvik::host
