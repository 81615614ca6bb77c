#include "host/posix/thread.h"

#include <pthread.h>
#include <signal.h>

#include <string>
#include <system_error>

#include "host/posix/signal_stack.h"

namespace morvik::host {

std::variant<std::thread, kit::Error> startThread(const char* name, std::function<void()> body) {
  // A new thread inherits the mask, so that no signal can reach it even for a moment.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  // Except faults, which concern the thread that causes them: if blocked, they would kill the process unnoticed.
  for (const int fault : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL})
    sigdelset(&all, fault);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::variant<std::thread, kit::Error> result;
  try {
    // It names itself, so that it has its name from the start.
    result = std::thread([name = std::string(name), body = std::move(body)] {
      pthread_setname_np(pthread_self(), name.c_str());
      const SignalStack signal_stack;
      body();
    });
  } catch (const std::system_error& error) {
    result = kit::Error{std::string("The system gave no thread '") + name + "' (" + error.what() +
                        "); raise the limit of threads for this process and start again."};
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return result;
}

}  // namespace morvik::host
