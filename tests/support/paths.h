// Where the tests find files of this tree and of this build.
#pragma once

#include <string>

namespace morvik::test {

/// The root folder of the source tree, absolute, without a final slash.
std::string sourceDir();

/// The build folder of these tests, absolute, without a final slash.
std::string buildDir();

}  // namespace morvik::test
