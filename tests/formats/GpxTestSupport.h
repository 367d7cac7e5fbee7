#pragma once
// Reading written XML back into a small element tree for assertions.

#include "kvtrack/formats/xml/SaxParser.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvtrack::testing {

using Names = std::vector<std::string>;
using Attributes = std::vector<std::pair<std::string, std::string>>;

/// One element: qualified name, attributes in file order, children, text.
struct XmlNode {
  std::string name, text;
  Attributes attributes;
  std::vector<std::unique_ptr<XmlNode>> children;

  std::optional<std::string> attribute(std::string_view key) const {
    for (const auto& [k, v] : attributes) {
      if (k == key) return v;
    }
    return std::nullopt;
  }
  Names attributeNames() const {
    Names names;
    for (const auto& a : attributes) names.push_back(a.first);
    return names;
  }
  Names childNames() const {
    Names names;
    for (const auto& c : children) names.push_back(c->name);
    return names;
  }
  std::vector<const XmlNode*> all(std::string_view childName) const {
    std::vector<const XmlNode*> found;
    for (const auto& c : children) {
      if (c->name == childName) found.push_back(c.get());
    }
    return found;
  }
  /// The index-th child of that name, or null.
  const XmlNode* child(std::string_view childName, size_t index = 0) const {
    const auto found = all(childName);
    return index < found.size() ? found[index] : nullptr;
  }
  /// Text of the named child; absent when there is no such child.
  std::optional<std::string> childText(std::string_view childName) const {
    const XmlNode* c = child(childName);
    return c ? std::optional<std::string>(c->text) : std::nullopt;
  }
};

class XmlTreeReader : public xml::SaxHandler {
 public:
  void startElement(xml::SaxParser&, std::string_view name, const xml::Attributes& attributes) override {
    auto node = std::make_unique<XmlNode>();
    node->name = name;
    for (const auto& a : attributes.all()) node->attributes.emplace_back(a.name, a.value);
    stack_.push_back(node.get());
    (stack_.size() == 1 ? root_ : stack_[stack_.size() - 2]->children.emplace_back()) = std::move(node);
  }
  void endElement(xml::SaxParser&, std::string_view) override { stack_.pop_back(); }
  void characters(xml::SaxParser&, std::string_view chunk) override {
    if (!stack_.empty()) stack_.back()->text += chunk;
  }
  std::unique_ptr<XmlNode> root_;

 private:
  std::vector<XmlNode*> stack_;
};

/// The document's root element; null (and a test failure) when unreadable.
inline std::unique_ptr<XmlNode> readXmlTree(const std::string& path) {
  xml::SaxParser parser;
  XmlTreeReader reader;
  EXPECT_TRUE(parser.parseFile(path, reader)) << path;
  return std::move(reader.root_);
}

}  // namespace kvtrack::testing
