#include "host/posix/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace morvik::host {
namespace {

bool isAnyClosed() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) < 0)
      return true;
  }
  return false;
}

/// What an executed program inherits in place of a standard stream. A root without devices still has "/" itself, which
/// is named without being opened, and which nobody inherits.
int openNothing() {
  const int opened = ::open("/dev/null", O_RDONLY);
  return opened >= 0 ? opened : ::open("/", O_PATH | O_CLOEXEC);
}

}  // namespace

/// The lowest free ones come first.
void fillClosedStandardStreams() {
  while (isAnyClosed()) {
    const int opened = openNothing();
    if (opened < 0)
      return;  // none left for anybody
    if (opened > STDERR_FILENO) {
      ::close(opened);  // somebody else has filled them meanwhile
      return;
    }
  }
}

}  // namespace morvik::host
