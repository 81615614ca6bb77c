// Any bytes as input to the device app: every line is a command, or gets one line that says what is wrong.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <variant>

#include "apps/device/line_source.h"
#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using morvik::fuzz::require;
  std::istringstream stream(std::string(data, data + size));
  const morvik_device::CommandSource source = morvik_device::commandsOf(stream, "standard input");
  for (;;) {
    const morvik_device::NextCommand next = source();
    if (const auto* mistake = std::get_if<std::string>(&next)) {
      require(!mistake->empty(), "a mistake without a word");
      require(mistake->find('\n') == std::string::npos, "a mistake of more than one line");
      return 0;
    }
    const auto* command = std::get_if<morvik_device::Command>(&next);
    if (command == nullptr)
      return 0;
    require(command->verb != nullptr, "a command without a verb");
  }
}
