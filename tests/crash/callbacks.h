// Callbacks of an app's that crash, as an optimiser leaves them and as they were written.
#pragma once

#include <functional>

namespace shop {

struct Callbacks {
  /// The function itself faults: optimised, it is part of the library's std::function.
  std::function<void()> faults;
  /// A function of the C library faults that it calls last: optimised, that call is a jump, and no frame is left.
  std::function<void()> faults_in_the_library;
  /// A function of the kit's faults.
  std::function<void()> faults_in_the_kit;
  /// Nothing happens when it is called; what it keeps faults when that is destroyed.
  std::function<void()> faults_when_destroyed;
};

Callbacks optimisedCallbacks();
Callbacks unoptimisedCallbacks();

}  // namespace shop
