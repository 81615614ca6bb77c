#include "apps/device/grouped_number.h"

#include <cstddef>

namespace morvik_device {

std::string grouped(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t place = text.size(); place > 3;) {
    place -= 3;
    text.insert(place, ",");
  }
  return text;
}

}  // namespace morvik_device
