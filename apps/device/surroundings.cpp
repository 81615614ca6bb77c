#include "apps/device/surroundings.h"

#include <cstdlib>

namespace morvik_device {

bool print(std::string_view text, const Surroundings& surroundings) {
  return std::fwrite(text.data(), 1, text.size(), surroundings.output) == text.size() &&
         std::fflush(surroundings.output) == 0;
}

int tellUnwritable(const Surroundings& surroundings) {
  constexpr int kExitOutputFailed = 1;
  surroundings.errors << "morvik-device: standard output cannot be written; keep its reader open" << std::endl;
  return kExitOutputFailed;
}

bool wantsColours(const Surroundings& surroundings) {
  const char* no_color = std::getenv("NO_COLOR");
  const bool wants_none = no_color != nullptr && *no_color != '\0';
  return surroundings.output_is_terminal && !wants_none;
}

}  // namespace morvik_device
