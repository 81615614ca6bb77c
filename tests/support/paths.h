// Where the tests find files of this tree and of this build.
#pragma once

#include <string>

namespace morvik::test {

/// The root folder of the source tree, absolute, without a slash at the end.
std::string sourceDir();

/// The build folder that these tests were built in, absolute, without a slash at the end.
std::string buildDir();

}  // namespace morvik::test
