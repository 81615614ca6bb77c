// Prints what happens, line by line: for people, or for machines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "apps/device/scenario/expectations.h"
#include "apps/device/scenario/history.h"
#include "apps/device/scenario/scenario.h"

namespace morvik_device::scenario {

enum class TimelineForm { kPlain, kColoured, kJson };

class Timeline : public Observer {
 public:
  /// `stream` outlives the timeline. `file` is the scenario's name as given.
  Timeline(std::FILE* stream, TimelineForm form, std::string file, uint64_t seed);

  void begin(const Scenario& scenario);
  void happened(const Happening& happening) override;
  /// An expectation was compared with what happened.
  void assessed(int64_t at_milliseconds, const Expectation& expectation, const Verdict& verdict);
  /// The scenario is over: `met` expectations were met; `missed` says whether one was not.
  void end(size_t met, bool missed);

  /// True once a line could not be written.
  bool failed() const { return failed_; }

 private:
  bool isJson() const { return form_ == TimelineForm::kJson; }
  std::string coloured(const char* colour, const std::string& text) const;
  std::string where(const Expectation& expectation) const;
  void writeLine(int64_t at_milliseconds, const char* colour, const std::string& who, const std::string& what);
  void write(const std::string& line);
  void writeJson(const morvik::kit::Value& line);

  std::FILE* const stream_;
  const TimelineForm form_;
  const std::string file_;
  const uint64_t seed_;
  bool failed_ = false;
};

}  // namespace morvik_device::scenario
