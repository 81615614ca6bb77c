// How the kit calls an app's function.
#pragma once

#include <utility>

namespace morvik::runtime {

/// Created before a call, it prevents a tail call, which would leave no frame on the stack.
struct NoTailCall {
  NoTailCall() = default;
  NoTailCall(const NoTailCall&) = delete;
  NoTailCall& operator=(const NoTailCall&) = delete;
  ~NoTailCall() { asm volatile(""); }
};

/// Every function of the app is called through this. On the stack of a crash it marks where the app begins, even where
/// the optimizer left no frame of the app (isCallOfTheApp() knows it by name).
template <class Function, class... Arguments>
[[gnu::noinline]] decltype(auto) callApp(const Function& function, Arguments&&... arguments) {
  const NoTailCall is_no_jump;
  return function(std::forward<Arguments>(arguments)...);
}

}  // namespace morvik::runtime
