// Keys of the store that a run reads or spoils.
#pragma once

#include <string_view>

namespace morvik::proofs {

inline constexpr std::string_view kInstallIdKey = "host.installId";
inline constexpr std::string_view kLedgerKey = "host.ledger";

}  // namespace morvik::proofs
