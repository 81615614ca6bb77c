// Names of types and functions as people write them.
#pragma once

#include <string>
#include <typeinfo>

namespace morvik::services {

/// The plain form of a mangled name; anything else stays as it is. Any thread.
std::string demangled(const char* name);

/// A type's plain name; "foreign exception" for null, which the runtime reports for an object thrown by another
/// language. Any thread.
std::string typeName(const std::type_info* type);

/// typeName() of the object being handled. Only inside a handler of terminate or of an exception.
std::string caughtTypeName();

}  // namespace morvik::services
