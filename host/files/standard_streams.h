// Libraries that open descriptors in a process whose standard streams may be closed.
#pragma once

namespace morvik::host {

/// As long as one lives, no descriptor that this process opens becomes one of the three of the standard streams, into
/// which others write: those that the app has closed are taken. Reading and writing fail there as they did before, and
/// what the app opens there meanwhile stays. Where files are opened by name, openFile() does. Any thread, several at
/// once; asks the kernel alone, and allocates nothing.
class StandardStreamsTaken {
 public:
  StandardStreamsTaken();
  ~StandardStreamsTaken();
  StandardStreamsTaken(const StandardStreamsTaken&) = delete;
  StandardStreamsTaken& operator=(const StandardStreamsTaken&) = delete;
};

}  // namespace morvik::host
