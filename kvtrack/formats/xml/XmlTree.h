#pragma once
// Building an XML element tree with libxml2 and saving it once,
// pretty-printed. Element and attribute names are interned in the
// document's dictionary. Elements are appended to their parent when made,
// in the order made. Long runs of similar elements (the points of a track
// segment) can instead be formatted by the caller while the document is
// saved, straight into the output (addDeferredMarkup).

#include "kvtrack/support/OutputFile.h"
#include "kvtrack/support/Status.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

typedef struct _xmlDoc xmlDoc;
typedef struct _xmlNode xmlNode;
typedef struct _xmlNs xmlNs;

namespace kvtrack::xml {

/// Receives serialised text, piece by piece, in document order.
using MarkupSink = std::function<void(std::string_view)>;
/// Writes markup into the sink while the document is saved.
using MarkupWriter = std::function<void(const MarkupSink&)>;

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
  /// Adds markup that the writer produces each time the document is saved,
  /// written out exactly as given, unescaped. The element's children are
  /// then no longer indented by the save, so the markup must bring its own
  /// line breaks and indentation. The writer may not throw.
  void addDeferredMarkup(MarkupWriter writer);
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
  /// Serialises into the sink; false when libxml2 or the sink failed.
  bool serialise(const MarkupSink& sink, const std::string& encoding, bool& badEncoding) const;

  xmlDoc* doc_;
  std::unique_ptr<std::vector<MarkupWriter>> deferred_;  // reached through doc_->_private
};

}  // namespace kvtrack::xml
