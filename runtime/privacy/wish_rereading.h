// Has the file of the wish to be forgotten read again after it could not be read.
#pragma once

#include <utility>

#include "runtime/machine/machine.h"
#include "runtime/privacy/wish_store.h"

namespace morvik::runtime {

/// Between two attempts, if the store flushes nothing meanwhile: soon after a user could have fixed it, at no cost
/// meanwhile.
inline constexpr double kWishRereadSeconds = 10;

/// Made on the main thread, which runs everything here except the reading.
class WishRereading {
 public:
  /// Both outlive it; the loop runs no more of its turns when it is destroyed.
  WishRereading(WishStore& wish, MachineLoop& main_loop);
  ~WishRereading();
  WishRereading(const WishRereading&) = delete;
  WishRereading& operator=(const WishRereading&) = delete;

  /// Each time the file was read again, `take` runs in a turn of its own; it must call WishStore::takeReadAgain().
  /// Once, before the first turn.
  void begin(kit::Block take);

 private:
  void tryLater();

  WishStore& wish_;
  MachineLoop& main_loop_;
  kit::Block take_;
};

}  // namespace morvik::runtime
