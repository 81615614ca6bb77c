// Opens files in a process whose standard streams may be closed.
#pragma once

#include <sys/types.h>

namespace morvik::host {

/// As open(), with close-on-exec. Fills closed standard streams first: what others write there would go into the file.
/// If one is closed meanwhile, the descriptor is still none of the three. Negative: errno says why. Any thread; blocks
/// as open() does; allocates nothing.
int openFile(const char* path, int flags, mode_t mode = 0);

}  // namespace morvik::host
