// The content of a store, sorted for people who want to know what is pending and why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/value.h"
#include "morvik/explanation.h"

namespace morvik_device {

/// Entries shown of each list by default.
inline constexpr size_t kShownOfAList = 10;
/// Members shown of a structured parameter by default.
inline constexpr size_t kShownOfAParameter = 20;

/// How to write a value whose meaning is not obvious.
enum class Meaning : uint8_t {
  kPlain,
  kMilliseconds,  ///< a point in time, in milliseconds since 1970
  kGender,        ///< by number
  kParameter,     ///< text; the members of a JSON object are shown below it
  kNoneIfMinusOne
};

/// A field of each record of a list.
struct ShownField {
  std::string_view name;   ///< in the record
  std::string_view title;  ///< for people
  Meaning meaning = Meaning::kPlain;
};

/// How a list is written for people. Its fields are columns; other members of a record follow as name and value,
/// unless the form is brief. A brief form without columns shows the length only.
struct ListForm {
  std::vector<ShownField> columns;
  bool is_brief = false;
};

struct ShownValue {
  std::string name;   ///< as it is stored
  std::string title;  ///< for people; the name if there is no better one
  morvik::kit::Value value;
  Meaning meaning = Meaning::kPlain;
};

struct ShownList {
  std::string name;
  std::string title;
  size_t count = 0;
  morvik::kit::Array newest;  ///< the last ones, in the order in which they were stored
  ListForm form;
};

struct Section {
  std::string name;   ///< for machines: "re_engagements"
  std::string title;  ///< for people
  std::string empty;  ///< shown if the section is empty
  std::vector<ShownValue> values;
  std::vector<ShownList> lists;
};

struct Inspection {
  std::string store;  ///< path of the file
  std::vector<Section> sections;
  std::vector<std::string> remarks;  ///< lines for people: what could not be read, what was set aside
};

/// What is pending in the folder of a store, next to the store itself.
struct OutsideTheStore {
  morvik::kit::Array shelved_reports;
  /// Signals that ended earlier processes; their reports are made at the next start.
  morvik::kit::Array fatal_signals;
};

using StoredEntries = std::vector<std::pair<std::string, morvik::kit::Value>>;

/// Sorts what was found. Each entry is in exactly one section, unknown names in the last. The newest `shown` entries of
/// each list are kept.
std::vector<Section> sorted(const StoredEntries& entries, const OutsideTheStore& outside, size_t shown);

/// Reads the store in that folder, and the files next to it, without modifying anything; an app may be using it.
/// Returns one line for people if there is nothing to read. Blocks while reading files.
std::optional<std::string> inspect(const std::string& folder, size_t shown, Inspection& out);

/// What became of one event, by the same store. Returns one line, as above, if there is nothing to read or the text is
/// no event id.
std::optional<std::string> explainStored(const std::string& folder, std::string_view event_id,
                                         morvik::Explanation& out);

}  // namespace morvik_device
