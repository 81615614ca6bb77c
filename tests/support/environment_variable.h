// Changes an environment variable for the duration of a test.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace morvik::test {

/// Restores the previous state when destroyed. One thread only.
class EnvironmentVariable {
 public:
  explicit EnvironmentVariable(std::string name) : name_(std::move(name)) {
    if (const char* before = std::getenv(name_.c_str()))
      before_ = before;
  }
  ~EnvironmentVariable() {
    if (before_)
      set(*before_);
    else
      unset();
  }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  void set(const std::string& value) { ::setenv(name_.c_str(), value.c_str(), 1); }
  void unset() { ::unsetenv(name_.c_str()); }

 private:
  const std::string name_;
  std::optional<std::string> before_;
};

}  // namespace morvik::test
