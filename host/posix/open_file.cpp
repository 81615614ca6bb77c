#include "host/posix/open_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace morvik::host {

int openFile(const char* path, int flags, mode_t mode) {
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
