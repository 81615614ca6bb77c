// What is made wrong on purpose in a random run, to see that it is found out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "proofs/run/watched_machine.h"

namespace morvik::proofs {

enum class Sabotage : uint8_t {
  kNone,
  kForgetsAnActivity,   ///< every 20th activity that is stored never reaches the store
  kSendsBatchesTwice,   ///< each batch starts twice
  kStoresStrangers,     ///< an impression that nobody recorded stands next to each that was
  kStoresClicksTwice,   ///< the stored list of clicks holds each twice
  kCountsTooFar,        ///< failure counts are ten too high
  kRetriesTwice,        ///< each conversion that is put off is put off twice
  kLosesHandlers,       ///< the handler of a batch never runs
  kLosesTheWish,        ///< the wish to be forgotten is never stored
  kLetsOutWhatWaits,    ///< what waits leaves although the user has asked to be forgotten meanwhile
  kIsAnotherDevice,     ///< the identifier of the install is never stored
  kForgetsTheAccount,   ///< the stored account is no account
  kSpoilsDemographics,  ///< no answer to demographics ever arrives
  kForgetsToDelete,     ///< what an accepted batch deletes of the activities stays
  kSaysStrangeThings,   ///< lines of the log are not those of the kit
  kIgnoresTheVersion,   ///< a store of a newer version is used as any other
  kLosesTheWishFile,    ///< next to a store of a newer version nothing knows of the wish
  kSaysItIsKept,        ///< the app is told that what it recorded is kept, whatever became of it
  kSyncsTooLate,        ///< a slow disk takes a minute to sync, and counts as much faster
};

/// Null for kNone.
std::unique_ptr<MachineSabotage> makeSabotage(Sabotage sabotage);

}  // namespace morvik::proofs
