// An inspected store as text: for people, and for machines.
#pragma once

#include <string>

#include "apps/device/inspection.h"

namespace morvik_device {

/// Text in a cell of a table is cut behind so many characters, unless all is asked for.
inline constexpr size_t kShownOfACell = 72;

struct TextStyle {
  bool is_coloured = false;
  bool cuts_long_text = true;
};

/// Titles, then what is there under each, in columns. Control characters and bytes that are no UTF-8 are written as
/// \xNN, so that nothing stored can move the reader's cursor.
std::string describe(const Inspection& inspection, const TextStyle& style);

/// One line of JSON: {"store":PATH,"install":{PROPERTY:VALUE},"activities":{PROPERTY:{"count":N,"newest":[…]}},…,
/// "remarks":[…]}; dates in ISO 8601.
std::string describeAsJson(const Inspection& inspection);

}  // namespace morvik_device
