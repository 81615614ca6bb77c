// What is wrong with a scenario, and where.
#pragma once

#include <compare>
#include <stdexcept>
#include <string>

namespace morvik_device::scenario {

/// A place in a file, as editors count: the first line is 1, and so is its first column.
struct Place {
  int line = 1;
  int column = 1;
  friend auto operator<=>(const Place&, const Place&) = default;
};

/// Thrown while reading a scenario; never leaves the reader.
class Mistake : public std::runtime_error {
 public:
  /// `text` says what is wrong and what was expected there.
  Mistake(Place place, const std::string& text) : std::runtime_error(text), place_(place) {}
  Place place() const { return place_; }

 private:
  Place place_;
};

/// "FILE:LINE:COLUMN: text".
inline std::string located(const std::string& file, Place place, const std::string& text) {
  return file + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) + ": " + text;
}

}  // namespace morvik_device::scenario
