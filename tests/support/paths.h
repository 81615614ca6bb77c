// Where tests find the files of this source tree and this build.
#pragma once

#include <string>

namespace morvik::test {

/// The root folder of the source tree, absolute, without a final slash.
std::string sourceDir();

/// The build folder of these tests, absolute, without a final slash.
std::string buildDir();

}  // namespace morvik::test
