// What the kit and its host may write into the log.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace morvik::proofs {

struct KnownLogText {
  std::string_view file;  ///< where it stands, without folders
  std::string_view text;  ///< with its "%@", "%ld" and so on
  bool is_alarm;          ///< tells of a mistake of the kit's, or of what no simulated machine has
};

/// All of them. A test compares them with the sources.
std::span<const KnownLogText> knownLogTexts();

enum class LogLineKind : uint8_t { kKnown, kAlarm, kUnknown };

/// Of a line as a sink gets it, with its prefix if it has one: a text of the file that the prefix names, filled in. A
/// line without one may be of any text.
LogLineKind kindOfLogLine(std::string_view line);

}  // namespace morvik::proofs
