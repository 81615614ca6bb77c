// The kit's configuration and version siblings.
#pragma once

#include <string>

namespace morvik::kit {

class MorvkSDKConfig {
 public:
  virtual ~MorvkSDKConfig() = default;
  /// The key of tracking and demographic payloads; "": there is none, and none of these is sent. Any thread.
  virtual std::string getTrackingSuperkey() const = 0;
};

class MorvikCoreUpdateLog {
 public:
  virtual ~MorvikCoreUpdateLog() = default;
  virtual std::string frameworkName() const = 0;
  virtual std::string getSDKVersion() const = 0;
};

}  // namespace morvik::kit
