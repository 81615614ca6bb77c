// What a device leaves in its store when it dies with much to send; and what becomes of it in the next process. The
// files of an earlier version are kept, so that every later one shows that it can take them over.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "morvik/ledger.h"

namespace morvik::proofs {

/// Bytes by file name, in the store's folder.
using StoreFilesKept = std::map<std::string, std::string>;

/// What such a device recorded.
inline constexpr size_t kUpgradeRunEvents = 8;
/// The name of an event, as its parameter.
std::string upgradeRunEvent(size_t number);
inline constexpr const char* kUpgradeRunImpression = "kept impression";
inline constexpr const char* kUpgradeRunClick = "kept-click";
inline constexpr const char* kUpgradeRunCommerceClick = "kept-commerce-click";
inline constexpr const char* kUpgradeRunCrash = "fendo kept crash";
inline constexpr const char* kUpgradeRunUser = "kept user";
/// The service took in those of an earlier session; and one demographic value was replaced by a newer one.
inline constexpr size_t kUpgradeRunDelivered = 2;
inline constexpr size_t kUpgradeRunReplaced = 1;

/// Plays it: attributed, then without a network; part of it is in the file, the rest in the log.
StoreFilesKept storeOfADeviceThatDied();

/// How the next process went on with such files.
struct UpgradeRunContinued {
  std::vector<std::string> store_lines;  ///< what the store had to say
  std::string install_id;                ///< of its batches
  std::string arrived;                   ///< all that the service took in, as text
  std::vector<std::string> events;       ///< parameters of the app's events that arrived, in order
  size_t installs = 0;                   ///< that the service attributed again
  std::string stored;                    ///< what is stored at the end, as text
  Ledger ledger_found;                   ///< at the start: of what the files hold
  Ledger ledger;                         ///< at the end
};

/// Opens them and plays two sessions with a network in good order; records one more event, "later event".
UpgradeRunContinued continueUpgradeRun(const StoreFilesKept& files);

}  // namespace morvik::proofs
