#include "apps/device/inspection_text.h"

#include <algorithm>
#include <map>
#include <variant>
#include <vector>

#include "apps/device/grouped_number.h"
#include "apps/device/visible.h"
#include "host/json/simdjson_codec.h"
#include "morvik/morvik.h"
#include "services/converters.h"
#include "services/dates.h"
#include "services/json_writer.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
namespace services = morvik::services;

constexpr const char* kBold = "\x1b[1m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kNormal = "\x1b[0m";
constexpr double kMicrosecondsPerMillisecond = 1000;
/// Milliseconds beyond this are not a plausible date.
constexpr double kMostMilliseconds = 1e15;

bool continuesACharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

size_t charactersOf(std::string_view text) {
  return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), continuesACharacter));
}

std::string cut(const std::string& text, const TextStyle& style) {
  if (!style.cuts_long_text || charactersOf(text) <= kShownOfACell)
    return text;
  size_t end = 0;
  for (size_t characters = 0; characters < kShownOfACell; ++characters) {
    do
      ++end;
    while (end < text.size() && continuesACharacter(text[end]));
  }
  return text.substr(0, end) + "…";
}

std::string plain(const kit::Value& value) {
  if (value.isString())
    return value.string().empty() ? "\"\"" : visible(value.string());
  if (value.isDate())
    return services::iso8601(value.date());
  if (value.isBoolean())
    return value.boolean() ? "yes" : "no";
  std::string text;
  services::appendJsonDescription(value, text);
  return visible(text);
}

std::string pointInTime(const kit::Value& value) {
  const double milliseconds = services::checkDoubleNilToZero(value);
  if (!value.isNumber() || !(milliseconds > -kMostMilliseconds && milliseconds < kMostMilliseconds))
    return plain(value);
  return services::iso8601(kit::Date{static_cast<int64_t>(milliseconds * kMicrosecondsPerMillisecond)});
}

std::string gender(const kit::Value& value) {
  switch (services::checkIntegerNilToZero(value)) {
    case morvik::kGenderFemale:
      return plain(value) + " (female)";
    case morvik::kGenderMale:
      return plain(value) + " (male)";
    case -1:
      return "none";
    default:
      return plain(value);
  }
}

std::string shown(const kit::Value& value, Meaning meaning, const TextStyle& style) {
  switch (meaning) {
    case Meaning::kMilliseconds:
      return pointInTime(value);
    case Meaning::kGender:
      return gender(value);
    case Meaning::kNoneIfMinusOne:
      return value == kit::Value(-1) ? "none" : plain(value);
    case Meaning::kPlain:
    case Meaning::kParameter:
      break;
  }
  return cut(plain(value), style);
}

/// Lines of cells; each column is as wide as its widest cell.
class Table {
 public:
  void add(std::vector<std::string> cells) { lines_.push_back(std::move(cells)); }
  /// What follows below the latest line: whole lines of any width.
  void addBelow(const std::string& lines) { below_[lines_.size() - 1] += lines; }

  void append(std::string_view indent, const TextStyle& style, bool first_is_title, std::string& out) const {
    std::vector<size_t> widths;
    for (const auto& cells : lines_) {
      widths.resize(std::max(widths.size(), cells.size()));
      for (size_t column = 0; column < cells.size(); ++column)
        widths[column] = std::max(widths[column], charactersOf(cells[column]));
    }
    for (const auto& cells : lines_) {
      const bool is_dim = style.is_coloured && first_is_title && &cells == &lines_.front();
      std::string line;
      for (size_t column = 0; column < cells.size(); ++column)
        line += cells[column] + std::string(widths[column] - charactersOf(cells[column]) + 2, ' ');
      line.erase(line.find_last_not_of(' ') + 1);
      out.append(indent);
      out += is_dim ? kDim + line + kNormal : line;
      out += '\n';
      const auto below = below_.find(static_cast<size_t>(&cells - lines_.data()));
      if (below != below_.end())
        out += below->second;
    }
  }

 private:
  std::vector<std::vector<std::string>> lines_;
  std::map<size_t, std::string> below_;  ///< by the line's index
};

/// The object whose JSON text a structured parameter is; an empty one for any other.
kit::Dictionary objectIn(const kit::Value& param) {
  if (!param.isString() || param.string().substr(0, 1) != "{")
    return {};
  auto read = morvik::host::SimdjsonCodec().read(param.string());
  const auto* value = std::get_if<kit::Value>(&read);
  return value != nullptr ? value->dictionary() : kit::Dictionary();
}

/// The members of a structured parameter, a line for each.
std::string openedParameter(const kit::Dictionary& object, const TextStyle& style) {
  Table members;
  const size_t shown_members =
      style.cuts_long_text ? std::min(object.size(), kShownOfAParameter) : static_cast<size_t>(object.size());
  for (const kit::Entry* entry = object.begin(); entry != object.begin() + shown_members; ++entry) {
    std::string value;
    services::appendJsonDescription(entry->value, value);
    members.add({cut(visible(entry->key.string()), style), cut(visible(value), style)});
  }
  if (shown_members < object.size())
    members.add({"… and " + grouped(object.size() - shown_members) + " more"});
  std::string text;
  members.append("      ", style, false, text);
  return text;
}

bool isColumn(const ListForm& form, std::string_view name) {
  return std::any_of(form.columns.begin(), form.columns.end(),
                     [&](const ShownField& column) { return column.name == name; });
}

/// The members of a record that have no column: "name=value name=value"; a true value is shown by its name alone.
std::string rest(const kit::Dictionary& record, const ListForm& form, const TextStyle& style) {
  std::string text;
  if (form.is_brief)
    return text;
  for (const kit::Entry& entry : record) {
    if (isColumn(form, entry.key.string()))
      continue;
    text += text.empty() ? "" : ", ";
    text += visible(entry.key.string());
    if (!(entry.value == kit::Value(true)))
      text += "=" + cut(plain(entry.value), style);
  }
  return text;
}

void appendRecords(const ShownList& list, const TextStyle& style, std::string& out) {
  const std::vector<ShownField>& columns = list.form.columns;
  if (list.newest.empty() || (columns.empty() && list.form.is_brief))
    return;
  Table table;
  if (!columns.empty()) {
    std::vector<std::string> titles;
    for (const ShownField& column : columns)
      titles.emplace_back(column.title);
    table.add(std::move(titles));
  }
  for (const kit::Value& record : list.newest) {
    std::vector<std::string> cells;
    std::string below;
    if (columns.empty() || !record.isDictionary()) {
      cells.push_back(cut(plain(record), style));
    } else {
      for (const ShownField& column : columns) {
        const kit::Value& value = record[column.name];
        const kit::Dictionary object = column.meaning == Meaning::kParameter ? objectIn(value) : kit::Dictionary();
        below += object.empty() ? "" : openedParameter(object, style);
        cells.push_back(value.isAbsent() ? "-" : object.empty() ? shown(value, column.meaning, style) : "{…}");
      }
      cells.push_back(rest(record.dictionary(), list.form, style));
    }
    table.add(std::move(cells));
    if (!below.empty())
      table.addBelow(below);
  }
  table.append("    ", style, !columns.empty(), out);
}

std::string countText(const ShownList& list) {
  const bool has_no_rows = list.form.columns.empty() && list.form.is_brief;
  if (list.newest.size() == list.count || has_no_rows)
    return grouped(list.count);
  return grouped(list.count) + ", the newest " + grouped(list.newest.size()) + ":";
}

void append(const Section& section, const TextStyle& style, std::string& out) {
  out += '\n';
  out += style.is_coloured ? kBold + section.title + kNormal : section.title;
  out += '\n';
  if (section.values.empty() && section.lists.empty())
    out += "  " + section.empty + "\n";
  Table values;
  for (const ShownValue& value : section.values)
    values.add({visible(value.title), shown(value.value, value.meaning, style)});
  values.append("  ", style, false, out);
  for (const ShownList& list : section.lists) {
    out += "  " + visible(list.title) + "  " + countText(list) + "\n";
    appendRecords(list, style, out);
  }
}

kit::Value asJson(const Section& section) {
  kit::MutableDictionary json;
  for (const ShownValue& value : section.values)
    json.set(value.name, value.value);
  for (const ShownList& list : section.lists)
    json.set(list.name, kit::Dictionary{{"count", static_cast<int64_t>(list.count)}, {"newest", list.newest}});
  return kit::Value(std::move(json));
}

}  // namespace

std::string describe(const Inspection& inspection, const TextStyle& style) {
  std::string text = "Store " + visible(inspection.store) + ", read and left as it is\n";
  for (const Section& section : inspection.sections)
    append(section, style, text);
  if (inspection.remarks.empty())
    return text;
  text += style.is_coloured ? std::string("\n") + kBold + "Remarks" + kNormal + "\n" : "\nRemarks\n";
  for (const std::string& remark : inspection.remarks)
    text += "  " + visible(remark) + "\n";
  return text;
}

std::string describeAsJson(const Inspection& inspection) {
  kit::MutableDictionary json;
  json.set("store", inspection.store);
  for (const Section& section : inspection.sections)
    json.set(section.name, asJson(section));
  kit::MutableArray remarks;
  for (const std::string& remark : inspection.remarks)
    remarks.append(remark);
  json.set("remarks", kit::Value(std::move(remarks)));
  std::string text;
  services::appendJsonDescription(kit::Value(std::move(json)), text);
  return text + "\n";
}

}  // namespace morvik_device
