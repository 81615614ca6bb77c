// The one exception guard. An operation names its guard (what is logged, and how) in one line. Whatever its body throws
// ends here and is logged.
#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "services/log.h"

namespace morvik::services {

/// What one clause of a guard writes.
struct GuardClause {
  enum class Form {
    kBlock,    ///< name, reason and information of the exception; of another object its text
    kOneLine,  ///< the exception's reason, or the other object's text, alone
  };
  enum class Gate {
    kLevel,    ///< through the component logger, at `level`
    kUngated,  ///< straight to the platform log
  };

  Gate gate = Gate::kLevel;
  kit::LogLevel level = kit::lcl_vError;
  Form form = Form::kBlock;
  const char* text = "";
};

/// A guard: a clause for platform exceptions and one for any other thrown object.
struct Guard {
  GuardClause exception;
  GuardClause other;
};

constexpr GuardClause block(const char* text) {
  return {GuardClause::Gate::kLevel, kit::lcl_vError, GuardClause::Form::kBlock, text};
}
constexpr GuardClause oneLine(kit::LogLevel level, const char* text) {
  return {GuardClause::Gate::kLevel, level, GuardClause::Form::kOneLine, text};
}
constexpr GuardClause ungated(const char* text) {
  return {GuardClause::Gate::kUngated, kit::lcl_vOff, GuardClause::Form::kOneLine, text};
}

namespace detail {
/// Logs the clause for the object being handled; what the log throws meanwhile is dropped. Only inside a handler.
void writeCaught(const Logger& logger, const Guard& guard, const LogSite& site) noexcept;
}  // namespace detail

/// Runs `body` under `guard`. Returns whether it completed; of a body with a result, the result, or nothing if it
/// threw.
template <class Body>
auto guarded(const Logger& logger, const Guard& guard, const LogSite& site, Body&& body) {
  using Result = std::invoke_result_t<Body>;
  if constexpr (std::is_void_v<Result>) {
    try {
      std::forward<Body>(body)();
      return true;
    } catch (...) {
      detail::writeCaught(logger, guard, site);
      return false;
    }
  } else {
    try {
      return std::optional<Result>(std::forward<Body>(body)());
    } catch (...) {
      detail::writeCaught(logger, guard, site);
      return std::optional<Result>();
    }
  }
}

/// The object being handled as text: what() of a standard exception, the reason of a platform exception, else its
/// type's name. Only inside a handler.
std::string caughtText();

}  // namespace morvik::services
