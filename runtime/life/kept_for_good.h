// What is never freed: reachable, so that nobody takes it for a leak.
#pragma once

#include <atomic>

namespace morvik::runtime {

/// A list of what can never be freed; never destroyed itself. Takes neither memory nor locks, so that a process without
/// memory and a forked child can use it. `Kept` has a member `Kept* kept_before`, for this alone.
template <class Kept>
class KeptForGood {
 public:
  /// Once for each.
  static void add(Kept& kept) {
    kept.kept_before = last_;
    while (!last_.compare_exchange_weak(kept.kept_before, &kept)) {
    }
  }

 private:
  static inline std::atomic<Kept*> last_{nullptr};
};

}  // namespace morvik::runtime
