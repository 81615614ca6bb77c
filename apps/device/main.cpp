#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "apps/device/program.h"

int main(int argc, char** argv) {
  // The kit ignores it anyway; without it the network library does not even create an empty file.
  ::unsetenv("SSLKEYLOGFILE");
  // A closed connection or output pipe is an error of one write, not the end of the program.
  std::signal(SIGPIPE, SIG_IGN);
  return morvik_device::runProgram({argv + 1, argv + argc}, {std::cin, stdout, std::cerr, isatty(STDOUT_FILENO) == 1,
                                                             isatty(STDERR_FILENO) == 1, isatty(STDIN_FILENO) == 1});
}
