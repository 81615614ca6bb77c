#include "services/guard.h"

#include <exception>

#include "services/type_names.h"

namespace morvik::services {
namespace {

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
    return caughtTypeName();
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
    // The log itself failed: there is nowhere left to write to, and the app must not suffer for it.
    return;
  }
}

}  // namespace detail
}  // namespace morvik::services
