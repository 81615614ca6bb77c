// The optional modules that the app registered.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "kit/modules.h"
#include "morvik/start_options.h"

namespace morvik::runtime {

/// Any thread.
class AppModules final : public kit::ModuleRegistry {
 public:
  AppModules() = default;
  explicit AppModules(const std::map<std::string, Module>& modules);

  const kit::Module* find(std::string_view class_name) const override;

 private:
  std::map<std::string, kit::Module, std::less<>> modules_;
};

}  // namespace morvik::runtime
