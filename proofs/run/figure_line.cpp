#include "proofs/run/figure_line.h"

#include <algorithm>
#include <cstddef>

namespace morvik::proofs {

void addFigureLine(std::string& text, std::string_view what, uint64_t number) {
  constexpr size_t kWidth = 44;
  std::string line = "  " + std::string(what);
  line.resize(std::max(line.size() + 1, kWidth), ' ');
  text += line + std::to_string(number) + "\n";
}

}  // namespace morvik::proofs
