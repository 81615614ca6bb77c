#include "apps/command_line/nearest_name.h"

#include <algorithm>

namespace morvik_command_line {
namespace {

size_t edits(std::string_view from, std::string_view to) {
  std::vector<std::vector<size_t>> table(from.size() + 1, std::vector<size_t>(to.size() + 1));
  for (size_t i = 0; i <= from.size(); ++i) {
    for (size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        table[i][j] = i + j;
        continue;
      }
      const size_t replaced = table[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, replaced});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
        table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
    }
  }
  return table[from.size()][to.size()];
}

}  // namespace

std::optional<std::string> nearestName(std::string_view word, const std::vector<std::string>& names) {
  constexpr size_t kLongestName = 64;
  if (word.size() > kLongestName)
    return std::nullopt;
  std::optional<std::string> nearest;
  size_t fewest = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& name : names) {
    const size_t needed = edits(word, name);
    if (needed < fewest && needed < name.size()) {
      fewest = needed;
      nearest = name;
    }
  }
  return nearest;
}

}  // namespace morvik_command_line
