#pragma once
// A small element subtree kept in reusable buffers and formatted to text
// exactly as XmlDocument::save formats the same elements. Long lists of
// similar elements (the points of a track segment) are written through it
// and put into the document as pre-formatted markup, which saves building
// and freeing a libxml2 node for every element and every text. It offers
// the same building calls as XmlElement, so one writer serves both.

#include "kvtrack/formats/xml/XmlTree.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvtrack::xml {

class MarkupTree;

class MarkupElement {
 public:
  MarkupElement(MarkupTree& tree, uint32_t index) : tree_(&tree), index_(index) {}

  MarkupElement addChild(std::string_view name, XmlNamespace ns = {});
  MarkupElement addChild(std::string_view name, std::string_view text, XmlNamespace ns = {});
  void setAttribute(std::string_view name, std::string_view value);
  void addText(std::string_view text);

 private:
  MarkupTree* tree_;
  uint32_t index_;
};

class MarkupTree {
 public:
  /// Forgets the previous subtree (keeping its buffers) and starts a new one.
  MarkupElement reset(std::string_view rootName, XmlNamespace ns = {});
  /// Appends the subtree as the document would show it with its root at the
  /// given depth: the root line is not indented, inner lines are.
  void format(std::string& out, int depth) const;

 private:
  friend class MarkupElement;
  struct Node {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes;
    size_t attributeCount = 0;
    std::string text;
    std::vector<uint32_t> children;
  };
  uint32_t newNode(std::string_view name, XmlNamespace ns);
  void formatNode(std::string& out, uint32_t index, int depth) const;

  std::vector<Node> nodes_;
  size_t used_ = 0;
};

}  // namespace kvtrack::xml
