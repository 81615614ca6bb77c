// An inspected store as text: for people, and for machines.
#pragma once

#include <string>

#include "apps/device/inspection.h"

namespace morvik_device {

/// Longer text in a cell of a table is cut, unless all is asked for.
inline constexpr size_t kShownOfACell = 72;

struct TextStyle {
  bool is_coloured = false;
  bool cuts_long_text = true;
};

/// Sections with their titles and columns. Control characters and bytes that are not UTF-8 are written as \xNN, so that
/// nothing stored can control the terminal.
std::string describe(const Inspection& inspection, const TextStyle& style);

/// One line of JSON: {"store":PATH,"install":{PROPERTY:VALUE},"activities":{PROPERTY:{"count":N,"newest":[…]}},…,
/// "remarks":[…]}; dates in ISO 8601.
std::string describeAsJson(const Inspection& inspection);

}  // namespace morvik_device
