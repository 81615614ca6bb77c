// Where log lines go, and how much is logged.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace morvik::kit {

enum LogLevel : uint8_t {
  lcl_vOff = 0,
  lcl_vCritical = 1,
  lcl_vError = 2,
  lcl_vWarning = 3,
  lcl_vInfo = 4,
  lcl_vDebug = 5,
  lcl_vTrace = 6,
};

inline constexpr size_t kLogComponents = 18;
/// The core object's log component.
inline constexpr size_t lcl_cKesmo = 0;

/// The current level of each component. Any thread.
struct LogLevels {
  std::array<std::atomic<uint8_t>, kLogComponents> _lcl_component_level{};
};

/// The platform log. Takes whole lines without their line feed; a message may contain line breaks.
class LogSink {
 public:
  virtual ~LogSink() = default;
  /// Any thread; must not call back into the kit. The text is valid during the call only.
  virtual void line(std::string_view text) = 0;
  /// The same for a thread that is about to die and may hold any lock, including the sink's: takes no lock. False if
  /// the line could not be written.
  virtual bool tryLine(std::string_view text) = 0;
};

}  // namespace morvik::kit
