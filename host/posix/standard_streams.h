// Protects libraries that open descriptors in a process whose standard streams may be closed.
#pragma once

namespace morvik::host {

/// Opens "/dev/null", read-only, in place of each standard stream that the app has closed, and leaves it there, as an
/// opened store does: so no descriptor that a library opens next becomes one into which others write, and writing there
/// fails as before. It is never closed, since by then the descriptor may be the app's own. Where files are opened by
/// name, use openFile(). Any thread, several at once, and in a forked child; only asks the kernel, takes no lock, and
/// allocates nothing.
void fillClosedStandardStreams();

}  // namespace morvik::host
