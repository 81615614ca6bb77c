#include "runtime/privacy/wish_rereading.h"

namespace morvik::runtime {

WishRereading::WishRereading(WishStore& wish, MachineLoop& main_loop) : wish_(wish), main_loop_(main_loop) {
  wish_.setWhenReadAgain([this] { main_loop_.async([this] { take_(); }); });
}

WishRereading::~WishRereading() {
  wish_.setWhenReadAgain(nullptr);
}

void WishRereading::begin(kit::Block take) {
  take_ = std::move(take);
  if (wish_.isToBeReadAgain())
    tryLater();
}

void WishRereading::tryLater() {
  main_loop_.schedule(kWishRereadSeconds, [this] {
    if (!wish_.isToBeReadAgain())
      return;
    wish_.flushNow();
    tryLater();
  });
}

}  // namespace morvik::runtime
