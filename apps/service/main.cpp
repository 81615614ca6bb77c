#include <csignal>
#include <cstdlib>
#include <iostream>

#include "apps/service/program.h"

namespace {

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

int main(int argc, char** argv) {
  // The TLS libraries would write the keys of every connection into the file it names.
  ::unsetenv("SSLKEYLOGFILE");
  // Blocked before the first thread exists, so that every thread inherits it and only the wait below receives them.
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A closed connection or output pipe is an error of one write, not the end of the program.
  std::signal(SIGPIPE, SIG_IGN);
  const auto wait_for_stop = [&signals] {
    int received = 0;
    sigwait(&signals, &received);
  };
  return morvik_service::runProgram({argv + 1, argv + argc}, {std::cout, std::cerr, wait_for_stop});
}
