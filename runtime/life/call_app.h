// How the kit calls a function of the app's.
#pragma once

#include <utility>

namespace morvik::runtime {

/// Made before a call, it keeps that from becoming a jump, which would leave no frame on the stack.
struct NoTailCall {
  NoTailCall() = default;
  NoTailCall(const NoTailCall&) = delete;
  NoTailCall& operator=(const NoTailCall&) = delete;
  ~NoTailCall() { asm volatile(""); }
};

/// Every function of the app's is called through this: on the stack of a crash it tells where the app begins, also
/// where the optimiser has left no frame of the app's own (isCallOfTheApp() knows it by its name).
template <class Function, class... Arguments>
[[gnu::noinline]] decltype(auto) callApp(const Function& function, Arguments&&... arguments) {
  const NoTailCall is_no_jump;
  return function(std::forward<Arguments>(arguments)...);
}

}  // namespace morvik::runtime
