// Callbacks of an app that crash, as an optimizer leaves them and as they were written.
#pragma once

#include <functional>

namespace shop {

struct Callbacks {
  /// The function itself faults; optimized, it is part of the library's std::function.
  std::function<void()> faults;
  /// Its last call, of a C library function, faults; optimized, that call is a jump, and no frame is left.
  std::function<void()> faults_in_the_library;
  /// A function of the kit faults.
  std::function<void()> faults_in_the_kit;
  /// Nothing happens when it is called; what it captured faults when destroyed.
  std::function<void()> faults_when_destroyed;
};

Callbacks optimisedCallbacks();
Callbacks unoptimisedCallbacks();

}  // namespace shop
