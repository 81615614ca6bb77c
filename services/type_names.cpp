#include "services/type_names.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace morvik::services {

std::string demangled(const char* name) {
  const std::unique_ptr<char, void (*)(void*)> plain(abi::__cxa_demangle(name, nullptr, nullptr, nullptr), std::free);
  return plain != nullptr ? plain.get() : name;
}

std::string typeName(const std::type_info* type) {
  return type == nullptr ? "foreign exception" : demangled(type->name());
}

std::string caughtTypeName() {
  return typeName(abi::__cxa_current_exception_type());
}

}  // namespace morvik::services
