// Crashes of the system's processes: this one's, and those that ended earlier ones.
#pragma once

#include <memory>
#include <string>
#include <variant>

#include "runtime/machine/machine.h"

namespace morvik::host {

class SystemCrashes final : public runtime::MachineCrashes {
 public:
  /// `json` outlives it; records are next to the store in that folder.
  SystemCrashes(std::string folder, const kit::JsonCodec& json, const services::Logger& logger)
      : folder_(std::move(folder)), json_(json), logger_(logger) {}

  void nameStoredTraces(const services::MorvikGVUserDefaults& store) override;
  void reportEarlier(const runtime::TakeCrash& take) override;
  std::variant<std::unique_ptr<runtime::MachineCrashHook>, kit::Error> install(
      runtime::CrashReporting reporting) override;

 private:
  const std::string folder_;
  const kit::JsonCodec& json_;
  const services::Logger logger_;
};

}  // namespace morvik::host
