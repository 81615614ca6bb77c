#include "apps/device/scenario/yaml_tree.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace morvik_device::scenario {
namespace {

// The library counts from 0.
Place placeOf(const YAML::Mark& mark) {
  return {mark.line + 1, mark.column + 1};
}

std::string limit(const char* what, size_t most) {
  return std::string(what) + "; at most " + std::to_string(most) + " are expected";
}

class TreeBuilder : public YAML::EventHandler {
 public:
  YamlNode takeRoot() { return std::move(root_); }
  bool sawDocument() const { return saw_document_; }
  /// The place of the node read last.
  Place lastPlace() const { return last_place_; }

  void OnDocumentStart(const YAML::Mark& mark) override {
    if (saw_document_)
      throw Mistake(placeOf(mark), "a second document begins; expected one scenario a file");
    saw_document_ = true;
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    checkAnchor(mark, anchor);
    add({.kind = YamlNode::Kind::kNull, .place = placeOf(mark)});
  }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override {
    throw Mistake(placeOf(mark), "a \"*\" refers to another place; expected the value itself");
  }
  void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                const std::string& value) override {
    checkAnchor(mark, anchor);
    checkTag(mark, tag);
    YamlNode scalar{.kind = YamlNode::Kind::kScalar, .place = placeOf(mark), .text = value, .quoted = tag == "!"};
    if (!scalar.quoted && (value.empty() || value == "~" || value == "null"))
      scalar.kind = YamlNode::Kind::kNull;
    add(std::move(scalar));
  }
  void OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                       YAML::EmitterStyle::value) override {
    open(YamlNode::Kind::kList, mark, tag, anchor);
  }
  void OnSequenceEnd() override { close(); }
  void OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  YAML::EmitterStyle::value) override {
    open(YamlNode::Kind::kMap, mark, tag, anchor);
  }
  void OnMapEnd() override { close(); }

 private:
  // Nodes being built, with the key whose value comes next.
  struct Open {
    YamlNode node;
    bool has_key = false;
    std::string key;
    Place key_place;
  };

  static void checkAnchor(const YAML::Mark& mark, YAML::anchor_t anchor) {
    if (anchor != 0)
      throw Mistake(placeOf(mark), "an \"&\" names this place; expected a value without a name");
  }
  static void checkTag(const YAML::Mark& mark, const std::string& tag) {
    if (!tag.empty() && tag != "?" && tag != "!")
      throw Mistake(placeOf(mark), "the tag " + tag + " stands before the value; expected a value without a tag");
  }
  void open(YamlNode::Kind kind, const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor) {
    checkAnchor(mark, anchor);
    checkTag(mark, tag);
    if (!open_.empty() && open_.back().node.isMap() && !open_.back().has_key)
      throw Mistake(placeOf(mark), "a list or map stands where a key should; expected a text");
    if (open_.size() == kMaxYamlDepth)
      throw Mistake(placeOf(mark), limit("too many lists and maps stand in one another", kMaxYamlDepth));
    count(placeOf(mark));
    open_.push_back({.node = {.kind = kind, .place = placeOf(mark)}});
  }
  void close() {
    YamlNode node = std::move(open_.back().node);
    open_.pop_back();
    attach(std::move(node));
  }
  void add(YamlNode node) {
    count(node.place);
    attach(std::move(node));
  }
  void count(Place place) {
    last_place_ = place;
    if (++nodes_ > kMaxYamlNodes)
      throw Mistake(place, limit("too many values", kMaxYamlNodes));
  }
  void attach(YamlNode node) {
    if (open_.empty()) {
      root_ = std::move(node);
      return;
    }
    Open& parent = open_.back();
    if (parent.node.isList()) {
      parent.node.elements.push_back(std::move(node));
    } else if (parent.has_key) {
      parent.has_key = false;
      // A missing value has no place.
      if (node.isNull())
        node.place = parent.key_place;
      parent.node.members.push_back({std::move(parent.key), parent.key_place, std::move(node)});
    } else {
      takeKey(parent, std::move(node));
    }
  }
  static void takeKey(Open& parent, YamlNode node) {
    if (!node.isScalar())
      throw Mistake(node.place, "a key is missing; expected a text");
    const auto& members = parent.node.members;
    if (std::any_of(members.begin(), members.end(), [&](const YamlMember& m) { return m.key == node.text; }))
      throw Mistake(node.place, "the key \"" + node.text + "\" stands here a second time; expected it once");
    parent.has_key = true;
    parent.key = std::move(node.text);
    parent.key_place = node.place;
  }

  YamlNode root_;
  std::vector<Open> open_;
  size_t nodes_ = 0;
  bool saw_document_ = false;
  Place last_place_;
};

}  // namespace

YamlNode readYaml(std::string_view text) {
  if (text.size() > kMaxScenarioBytes) {
    // The reader may have stopped there, so the size is unknown.
    throw Mistake({},
                  "the file has more than " + std::to_string(kMaxScenarioBytes) + " bytes; expected at most so many");
  }
  if (text.find('\0') != std::string_view::npos)
    throw Mistake({}, "the file holds a zero byte; expected a text in UTF-8");
  std::istringstream stream{std::string(text)};
  TreeBuilder builder;
  try {
    YAML::Parser parser(stream);
    while (parser.HandleNextDocument(builder)) {
    }
  } catch (const YAML::Exception& error) {
    // The end of the file has no mark.
    const Place place = error.mark.is_null() ? Place() : placeOf(error.mark);
    throw Mistake(std::max(place, builder.lastPlace()), "this is not YAML: " + error.msg);
  }
  if (!builder.sawDocument())
    throw Mistake({}, "the file is empty; expected a scenario");
  return builder.takeRoot();
}

}  // namespace morvik_device::scenario
