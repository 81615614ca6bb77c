// What lies in a store, sorted for people who want to know what waits there and why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/value.h"

namespace morvik_device {

/// Of each list so many entries are shown unless it is said otherwise.
inline constexpr size_t kShownOfAList = 10;
/// And of a structured parameter so many members, unless all is asked for.
inline constexpr size_t kShownOfAParameter = 20;

/// How to write a value that does not speak for itself.
enum class Meaning : uint8_t {
  kPlain,
  kMilliseconds,  ///< a point in time, in milliseconds since 1970
  kGender,        ///< by number
  kParameter,     ///< text; of a JSON object, its members are shown below
  kNoneIfMinusOne
};

/// A field of each record of a list.
struct ShownField {
  std::string_view name;   ///< in the record
  std::string_view title;  ///< for people
  Meaning meaning = Meaning::kPlain;
};

/// How a list is written for people. Its fields come in columns; what else a record has follows as name and value,
/// unless the form is brief. A brief one without columns is its length alone.
struct ListForm {
  std::vector<ShownField> columns;
  bool is_brief = false;
};

struct ShownValue {
  std::string name;   ///< as it is stored
  std::string title;  ///< for people; the name where nobody knows better
  morvik::kit::Value value;
  Meaning meaning = Meaning::kPlain;
};

struct ShownList {
  std::string name;
  std::string title;
  size_t count = 0;
  morvik::kit::Array newest;  ///< the last of them in the order in which they were stored
  ListForm form;
};

struct Section {
  std::string name;   ///< for machines: "re_engagements"
  std::string title;  ///< for people
  std::string empty;  ///< what is said of a section without anything in it
  std::vector<ShownValue> values;
  std::vector<ShownList> lists;
};

struct Inspection {
  std::string store;  ///< path of the file
  std::vector<Section> sections;
  std::vector<std::string> remarks;  ///< lines for people: what could not be read, what was set aside
};

/// What is in the folder of a store that waits beside the store itself.
struct BesideTheStore {
  morvik::kit::Array shelved_reports;
  /// Signals of which earlier processes died and whose reports are made at the next start.
  morvik::kit::Array fatal_signals;
};

using StoredEntries = std::vector<std::pair<std::string, morvik::kit::Value>>;

/// Sorts what was found. Each entry is in exactly one section, those whose names nobody knows in the last. Of each list
/// the newest `shown` are kept.
std::vector<Section> sorted(const StoredEntries& entries, const BesideTheStore& beside, size_t shown);

/// Reads the store in that folder, and what lies beside it, without touching anything; an app may hold it. Or one line
/// for people about why there is nothing to read. Blocks for reading files.
std::optional<std::string> inspect(const std::string& folder, size_t shown, Inspection& out);

}  // namespace morvik_device
