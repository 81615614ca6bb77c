// The texts that the kit and the machine that ships may log.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace morvik::proofs {

struct KnownLogText {
  std::string_view file;  ///< its source file, without folders
  std::string_view text;  ///< with its "%@", "%ld" and so on
  bool is_alarm;          ///< indicates a bug of the kit, or something that no simulated machine has
};

/// All texts. A test compares them with the sources.
std::span<const KnownLogText> knownLogTexts();

enum class LogLineKind : uint8_t { kKnown, kAlarm, kUnknown };

/// The kind of a line as a sink receives it. A line with a prefix must be a text of the file that the prefix names,
/// filled in; a line without one may be any text.
LogLineKind kindOfLogLine(std::string_view line);

}  // namespace morvik::proofs
