#include "runtime/loop/settle_watch.h"

#include <utility>

namespace morvik::runtime {

void SettleWatch::begin(double limit_seconds, Done done) {
  end(false);
  done_ = std::move(done);
  limit_ = main_loop_.schedule(limit_seconds, [this] { end(is_settled_()); });
  is_watching_ = true;
}

void SettleWatch::check() {
  if (is_watching_ && is_settled_())
    end(true);
}

void SettleWatch::end(bool settled) {
  if (!is_watching_)
    return;
  is_watching_ = false;
  main_loop_.cancel(limit_);
  const Done done = std::move(done_);
  done(settled);
}

}  // namespace morvik::runtime
