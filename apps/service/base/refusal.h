// Why a request, a file or an option was not accepted.
#pragma once

#include <stdexcept>
#include <string>

namespace morvik_service {

/// A bad request. Says what is wrong, where, and how to fix it. Thrown by the rooms that read input, turned into an
/// answer in one place (Service). Never carries key material.
class Refusal : public std::runtime_error {
 public:
  /// `status` is the HTTP status of the answer (400 to 599).
  Refusal(int status, const std::string& problem, std::string where, std::string fix)
      : std::runtime_error(problem), status_(status), where_(std::move(where)), fix_(std::move(fix)) {}

  int status() const { return status_; }
  const std::string& where() const { return where_; }
  const std::string& fix() const { return fix_; }

 private:
  int status_;
  std::string where_;
  std::string fix_;
};

/// The program cannot start or go on as it was asked to; the text is a whole sentence for the person at the keyboard.
class SetupError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Exit status for a command line or a set-up that cannot be used.
inline constexpr int kExitUsage = 2;

}  // namespace morvik_service
