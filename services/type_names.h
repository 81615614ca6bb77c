// Names of types and functions as people write them.
#pragma once

#include <string>

namespace morvik::services {

/// The plain form of a mangled name; what is none stays as it is. Any thread.
std::string demangled(const char* name);

/// The type of the object being handled; "foreign exception" for one of another language. To be called inside a handler
/// only, of terminate or of an exception.
std::string caughtTypeName();

}  // namespace morvik::services
