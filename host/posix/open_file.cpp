#include "host/posix/open_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "host/posix/standard_streams.h"

namespace morvik::host {

/// A file that is moved out of the place of a closed stream leaves that place free again, for a library that filled the
/// closed ones in between and is about to open a socket.
int openFile(const char* path, int flags, mode_t mode) {
  fillClosedStandardStreams();
  const int opened = ::open(path, flags | O_CLOEXEC, mode);
  if (opened < 0 || opened > STDERR_FILENO)
    return opened;
  const int moved = ::fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  ::close(opened);
  errno = error;
  return moved;
}

}  // namespace morvik::host
