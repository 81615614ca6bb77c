#include "services/type_names.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace morvik::services {

std::string demangled(const char* name) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> plain(abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
  return status == 0 ? plain.get() : name;
}

std::string caughtTypeName() {
  const std::type_info* const type = abi::__cxa_current_exception_type();
  return type == nullptr ? "foreign exception" : demangled(type->name());
}

}  // namespace morvik::services
