// Opening files in a process whose standard streams may be closed.
#pragma once

#include <sys/types.h>

namespace morvik::host {

/// As open(), and closed on exec. The descriptor is none of the three of the standard streams, also where the app has
/// closed one of these: what others write there would go into the file. Negative: errno says why. Any thread; blocks as
/// open() does; allocates nothing.
int openFile(const char* path, int flags, mode_t mode = 0);

}  // namespace morvik::host
