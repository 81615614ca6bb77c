// Small whole files: keys, certificates, attribution data, the schedule, the port file.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>

namespace morvik_service {

/// No file that the service is given is larger.
inline constexpr std::size_t kMaxInputFileBytes = std::size_t{1024} * 1024;

/// Owner alone may read; the mode of a private key.
inline constexpr mode_t kPrivateMode = 0600;
inline constexpr mode_t kPublicMode = 0644;
inline constexpr mode_t kPrivateFolderMode = 0700;

/// The content of `path`. Throws SetupError that names the file when it cannot be read or is too large.
std::string readSmallFile(const std::string& path);

/// Writes `path` whole under a temporary name and moves it into place, so that a reader sees all of it or none. Throws
/// SetupError that names the file.
void replaceFile(const std::string& path, const std::string& content, mode_t mode);

/// Makes the folder, parents included; an existing one is left alone. Throws SetupError.
void makeFolder(const std::string& path);

/// The same; a folder made here is open to its owner alone, whatever the umask says.
void makePrivateFolder(const std::string& path);

}  // namespace morvik_service
