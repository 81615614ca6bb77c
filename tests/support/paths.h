// Where the tests find files of this tree and of this build.
#ifndef MORVIK_TESTS_SUPPORT_PATHS_H_
#define MORVIK_TESTS_SUPPORT_PATHS_H_

#include <string>

namespace morvik::test {

// The root folder of the source tree, absolute, without a slash at the end.
std::string sourceDir();

// The build folder that these tests were built in, absolute, without a slash at the end.
std::string buildDir();

}  // namespace morvik::test

#endif  // MORVIK_TESTS_SUPPORT_PATHS_H_
