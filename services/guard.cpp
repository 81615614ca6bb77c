#include "services/guard.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <typeinfo>

namespace morvik::services {
namespace {

std::string typeNameOfCaught() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  if (type == nullptr)
    return "foreign exception";
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type->name(), nullptr, nullptr, &status),
                                                    std::free);
  return name != nullptr ? name.get() : type->name();
}

void writeClause(const Logger& logger, const GuardClause& clause, const LogSite& site,
                 std::initializer_list<FormatArgument> arguments) {
  if (clause.gate == GuardClause::Gate::kUngated) {
    logger.writePlain(clause.text, arguments);
  } else if (logger.enabled(clause.level)) {
    logger.write(clause.level, site, clause.text, arguments);
  }
}

}  // namespace

std::string caughtText() {
  try {
    throw;
  } catch (const kit::Exception& exception) {
    return exception.reason;
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return typeNameOfCaught();
  }
}

namespace {

void writeHandled(const Logger& logger, const Guard& guard, const LogSite& site) {
  try {
    throw;
  } catch (const kit::Exception& exception) {
    if (guard.exception.form == GuardClause::Form::kBlock) {
      writeClause(logger, guard.exception, site, {exception.name, exception.reason, exception.info});
    } else {
      writeClause(logger, guard.exception, site, {exception});
    }
  } catch (...) {
    writeClause(logger, guard.other, site, {caughtText()});
  }
}

}  // namespace

namespace detail {

void writeCaught(const Logger& logger, const Guard& guard, const LogSite& site) noexcept {
  try {
    writeHandled(logger, guard, site);
  } catch (...) {
    // The log itself failed: there is nowhere left to write to, and the app must not pay for that.
    return;
  }
}

}  // namespace detail
}  // namespace morvik::services
