// The kit names the fields of StartOptions in its messages; users of this program know its options.
#pragma once

#include <string>

namespace morvik_device {

/// The message; if it begins with a field of StartOptions, with the option that sets it instead.
std::string withOptionName(std::string message);

}  // namespace morvik_device
