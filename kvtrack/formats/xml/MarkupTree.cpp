#include "kvtrack/formats/xml/MarkupTree.h"

#include "kvtrack/formats/xml/XmlText.h"

#include <libxml/tree.h>

namespace kvtrack::xml {

namespace {

// The escaping libxml2 applies when it saves text and attribute values in
// UTF-8: bytes above 0x7f pass through unchanged. Runs without special
// characters are copied in one piece. Characters XML forbids are dropped.
template <typename Replacement>
void appendEscaped(std::string& out, std::string_view text, Replacement replacement) {
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (isForbiddenInXml(text[i])) {
      out.append(text.data() + start, i - start);
      start = i + 1;
      continue;
    }
    const std::string_view escaped = replacement(text[i]);
    if (escaped.empty()) continue;
    out.append(text.data() + start, i - start);
    out += escaped;
    start = i + 1;
  }
  out.append(text.data() + start, text.size() - start);
}

void appendEscapedText(std::string& out, std::string_view text) {
  appendEscaped(out, text, [](char c) -> std::string_view {
    switch (c) {
      case '<': return "&lt;";
      case '>': return "&gt;";
      case '&': return "&amp;";
      case '\r': return "&#13;";
      default: return {};
    }
  });
}

void appendEscapedAttribute(std::string& out, std::string_view value) {
  appendEscaped(out, value, [](char c) -> std::string_view {
    switch (c) {
      case '<': return "&lt;";
      case '>': return "&gt;";
      case '&': return "&amp;";
      case '"': return "&quot;";
      case '\n': return "&#10;";
      case '\r': return "&#13;";
      case '\t': return "&#9;";
      default: return {};
    }
  });
}

void appendIndent(std::string& out, int depth) { out.append(static_cast<size_t>(2 * depth), ' '); }

void assignQualified(std::string& target, std::string_view name, XmlNamespace ns) {
  target.clear();
  if (ns.raw() && ns.raw()->prefix) {
    target += reinterpret_cast<const char*>(ns.raw()->prefix);
    target += ':';
  }
  target += name;
}

}  // namespace

uint32_t MarkupTree::newNode(std::string_view name, XmlNamespace ns) {
  if (used_ == nodes_.size()) nodes_.emplace_back();
  Node& node = nodes_[used_];
  assignQualified(node.name, name, ns);
  node.attributeCount = 0;
  node.text.clear();
  node.children.clear();
  return static_cast<uint32_t>(used_++);
}

MarkupElement MarkupTree::reset(std::string_view rootName, XmlNamespace ns) {
  used_ = 0;
  return MarkupElement(*this, newNode(rootName, ns));
}

MarkupElement MarkupElement::addChild(std::string_view name, XmlNamespace ns) {
  const uint32_t child = tree_->newNode(name, ns);
  tree_->nodes_[index_].children.push_back(child);
  return MarkupElement(*tree_, child);
}

MarkupElement MarkupElement::addChild(std::string_view name, std::string_view text,
                                      XmlNamespace ns) {
  MarkupElement child = addChild(name, ns);
  child.addText(text);
  return child;
}

void MarkupElement::setAttribute(std::string_view name, std::string_view value) {
  auto& node = tree_->nodes_[index_];
  if (node.attributeCount == node.attributes.size()) node.attributes.emplace_back();
  auto& [n, v] = node.attributes[node.attributeCount++];
  n.assign(name);
  v.assign(value);
}

void MarkupElement::addText(std::string_view text) { tree_->nodes_[index_].text += text; }

void MarkupTree::format(std::string& out, int depth) const {
  if (used_ > 0) formatNode(out, 0, depth);
}

void MarkupTree::formatNode(std::string& out, uint32_t index, int depth) const {
  const Node& node = nodes_[index];
  out += '<';
  out += node.name;
  for (size_t a = 0; a < node.attributeCount; ++a) {
    out += ' ';
    out += node.attributes[a].first;
    out += "=\"";
    appendEscapedAttribute(out, node.attributes[a].second);
    out += '"';
  }
  if (node.children.empty() && node.text.empty()) {
    out += "/>";
    return;
  }
  out += '>';
  // Text and elements are never mixed by the writers that use this.
  appendEscapedText(out, node.text);
  for (const uint32_t child : node.children) {
    out += '\n';
    appendIndent(out, depth + 1);
    formatNode(out, child, depth + 1);
  }
  if (!node.children.empty()) {
    out += '\n';
    appendIndent(out, depth);
  }
  out += "</";
  out += node.name;
  out += '>';
}

}  // namespace kvtrack::xml
