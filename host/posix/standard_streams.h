// Libraries that open descriptors in a process whose standard streams may be closed.
#pragma once

namespace morvik::host {

/// Opens "/dev/null", for reading alone, in the place of each of the three standard streams that the app has closed,
/// and leaves it there, as an opened store does: no descriptor that a library opens next becomes one of those into
/// which others write, and writing there fails as before. It is never closed, since what stands there by then may be
/// the app's own. Where files are opened by name, openFile() does. Any thread, several at once, and in a forked child;
/// asks the kernel alone, takes no lock, and allocates nothing.
void fillClosedStandardStreams();

}  // namespace morvik::host
