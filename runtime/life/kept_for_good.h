// Objects that are never freed, kept reachable so that they are not reported as leaks.
#pragma once

#include <atomic>

namespace morvik::runtime {

/// A list of objects that are never freed; never destroyed itself. Allocates nothing and takes no lock, so that a
/// process without memory and a forked child can use it. `Kept` has a member `Kept* kept_before` for this list only.
template <class Kept>
class KeptForGood {
 public:
  /// Once for each object.
  static void add(Kept& kept) {
    kept.kept_before = last_;
    while (!last_.compare_exchange_weak(kept.kept_before, &kept)) {
    }
  }

 private:
  static inline std::atomic<Kept*> last_{nullptr};
};

}  // namespace morvik::runtime
