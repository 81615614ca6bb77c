// Has the file of the wish to be forgotten read again where it could not be read.
#pragma once

#include <utility>

#include "runtime/machine/machine.h"
#include "runtime/privacy/wish_store.h"

namespace morvik::runtime {

/// Between two tries, when the store flushes nothing in between: as soon as a user could mend it, and no cost while it
/// lasts.
inline constexpr double kWishRereadSeconds = 10;

/// Made on the main thread, which runs everything here but the reading.
class WishRereading {
 public:
  /// Both outlive it; the loop runs none of its turns any more when it goes.
  WishRereading(WishStore& wish, MachineLoop& main_loop);
  ~WishRereading();
  WishRereading(const WishRereading&) = delete;
  WishRereading& operator=(const WishRereading&) = delete;

  /// `take` runs in a turn of its own each time the file was read again, and has WishStore::takeReadAgain() called.
  /// Once, before the first turn.
  void begin(kit::Block take);

 private:
  void tryLater();

  WishStore& wish_;
  MachineLoop& main_loop_;
  kit::Block take_;
};

}  // namespace morvik::runtime
