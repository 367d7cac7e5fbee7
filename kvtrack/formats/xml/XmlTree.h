#pragma once
// Building an XML element tree with libxml2 and saving it once,
// pretty-printed. Element and attribute names are interned in the
// document's dictionary, so long documents (a million track points) do not
// pay one allocation per name. Elements are appended to their parent when
// made, in the order made.

#include "kvtrack/support/OutputFile.h"
#include "kvtrack/support/Status.h"

#include <string>
#include <string_view>

typedef struct _xmlDoc xmlDoc;
typedef struct _xmlNode xmlNode;
typedef struct _xmlNs xmlNs;

namespace kvtrack::xml {

/// A namespace declared on some element of the document (prefix and URI).
class XmlNamespace {
 public:
  XmlNamespace() = default;
  explicit XmlNamespace(xmlNs* ns) : ns_(ns) {}
  xmlNs* raw() const { return ns_; }

 private:
  xmlNs* ns_ = nullptr;
};

/// A handle to an element owned by its document.
class XmlElement {
 public:
  explicit XmlElement(xmlNode* node) : node_(node) {}

  /// A new empty child, after the existing ones.
  XmlElement addChild(std::string_view name, XmlNamespace ns = {});
  /// A new child holding the text (escaped on output).
  XmlElement addChild(std::string_view name, std::string_view text, XmlNamespace ns = {});
  /// Attributes keep the order in which they are set.
  void setAttribute(std::string_view name, std::string_view value);
  void addText(std::string_view text);
  /// Adds markup that is written out exactly as given, unescaped. The
  /// element's children are then no longer indented by the save, so the
  /// markup must bring its own line breaks and indentation.
  void addPreformattedMarkup(std::string_view markup);
  /// Declares a namespace on this element: xmlns:prefix="uri" (or the
  /// default namespace for an empty prefix).
  XmlNamespace declareNamespace(std::string_view prefix, std::string_view uri);
  /// Puts this element itself into a namespace declared here or above.
  void setNamespace(XmlNamespace ns);

  /// Number of elements above this one (0 for the root).
  int depth() const;

  xmlNode* raw() const { return node_; }

 private:
  xmlNode* node_;
};

class XmlDocument {
 public:
  explicit XmlDocument(std::string_view rootName);
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  XmlElement root() const;

  /// Serialises indented, one element per line, with an XML declaration of
  /// version 1.0 and the given encoding name.
  Status writeTo(OutputFile& file, const std::string& encoding) const;
  /// The same into a file that is replaced only by a complete one.
  Status save(const std::string& path, const std::string& encoding) const;
  /// The serialised text (tests, in-memory use).
  std::string text(const std::string& encoding) const;

 private:
  xmlDoc* doc_;
};

}  // namespace kvtrack::xml
