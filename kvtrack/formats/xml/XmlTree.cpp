#include "kvtrack/formats/xml/XmlTree.h"

#include "kvtrack/formats/xml/XmlText.h"
#include "kvtrack/support/StagedFiles.h"

#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>

#include <string>

namespace kvtrack::xml {

namespace {

// libxml2 wants NUL-terminated names; the dictionary interns them once.
const xmlChar* intern(xmlNode* node, std::string_view name) {
  return xmlDictLookup(node->doc->dict, reinterpret_cast<const xmlChar*>(name.data()),
                       static_cast<int>(name.size()));
}

const xmlChar* chars(const std::string& s) { return reinterpret_cast<const xmlChar*>(s.c_str()); }

}  // namespace

XmlElement XmlElement::addChild(std::string_view name, XmlNamespace ns) {
  xmlNode* child = xmlNewDocNode(node_->doc, ns.raw(), intern(node_, name), nullptr);
  xmlAddChild(node_, child);
  return XmlElement(child);
}

XmlElement XmlElement::addChild(std::string_view name, std::string_view text, XmlNamespace ns) {
  XmlElement child = addChild(name, ns);
  child.addText(text);
  return child;
}

void XmlElement::setAttribute(std::string_view name, std::string_view value) {
  const std::string v = withoutForbiddenXmlCharacters(value);
  xmlNewProp(node_, intern(node_, name), chars(v));
}

void XmlElement::addText(std::string_view text) {
  std::string kept;
  if (hasForbiddenXmlCharacters(text)) text = kept = withoutForbiddenXmlCharacters(text);
  if (text.empty()) return;
  xmlNode* t = xmlNewDocTextLen(node_->doc, reinterpret_cast<const xmlChar*>(text.data()),
                                static_cast<int>(text.size()));
  xmlAddChild(node_, t);
}

void XmlElement::addDeferredMarkup(MarkupWriter writer) {
  auto& writers = *static_cast<std::vector<MarkupWriter>*>(node_->doc->_private);
  // The place is marked by "\x01<index>\x02", bytes no text of the
  // document can hold (writers drop them), in a text node saved unescaped.
  const std::string marker = "\x01" + std::to_string(writers.size()) + "\x02";
  writers.push_back(std::move(writer));
  xmlNode* t = xmlNewDocTextLen(node_->doc, reinterpret_cast<const xmlChar*>(marker.data()),
                                static_cast<int>(marker.size()));
  t->name = xmlStringTextNoenc;  // libxml2's marker for text written without escaping
  // Linked by hand: xmlAddChild would merge it into a preceding text node.
  t->parent = node_;
  if (!node_->children) {
    node_->children = t;
  } else {
    node_->last->next = t;
    t->prev = node_->last;
  }
  node_->last = t;
}

XmlNamespace XmlElement::declareNamespace(std::string_view prefix, std::string_view uri) {
  const std::string u(uri), p(prefix);
  return XmlNamespace(xmlNewNs(node_, chars(u), p.empty() ? nullptr : chars(p)));
}

void XmlElement::setNamespace(XmlNamespace ns) { xmlSetNs(node_, ns.raw()); }

int XmlElement::depth() const {
  int depth = 0;
  for (const xmlNode* n = node_->parent; n && n->type == XML_ELEMENT_NODE; n = n->parent) ++depth;
  return depth;
}

XmlDocument::XmlDocument(std::string_view rootName)
    : doc_(xmlNewDoc(BAD_CAST "1.0")), deferred_(std::make_unique<std::vector<MarkupWriter>>()) {
  doc_->dict = xmlDictCreate();
  doc_->_private = deferred_.get();
  const std::string name(rootName);
  xmlNode* root = xmlNewDocNode(doc_, nullptr, chars(name), nullptr);
  xmlDocSetRootElement(doc_, root);
}

XmlDocument::~XmlDocument() { xmlFreeDoc(doc_); }

XmlElement XmlDocument::root() const { return XmlElement(xmlDocGetRootElement(doc_)); }

namespace {

// libxml2's output with every deferred place replaced by its writer's markup.
class MarkedOutput {
 public:
  MarkedOutput(const MarkupSink& sink, const std::vector<MarkupWriter>& writers)
      : sink_(sink), writers_(writers) {}

  void write(std::string_view bytes) {
    while (!bytes.empty()) {
      if (!inMarker_) {
        const size_t start = bytes.find('\x01');
        if (start != 0) sink_(bytes.substr(0, start));
        if (start == std::string_view::npos) return;
        bytes.remove_prefix(start + 1);
        inMarker_ = true;
        index_ = 0;
        continue;
      }
      const char c = bytes.front();
      bytes.remove_prefix(1);
      if (c != '\x02') {
        index_ = index_ * 10 + static_cast<size_t>(c - '0');
        continue;
      }
      inMarker_ = false;
      if (index_ < writers_.size()) writers_[index_](sink_);
    }
  }

 private:
  const MarkupSink& sink_;
  const std::vector<MarkupWriter>& writers_;
  bool inMarker_ = false;  // the marker may arrive split over two pieces
  size_t index_ = 0;
};

// libxml2 hands the serialised bytes here.
int writeMarked(void* context, const char* bytes, int length) {
  try {
    static_cast<MarkedOutput*>(context)->write(std::string_view(bytes, static_cast<size_t>(length)));
    return length;
  } catch (...) {
    return -1;  // out of memory: the save fails
  }
}

int keepOpen(void*) { return 0; }

// libxml2 prints I/O errors itself; callers report failures in their own words.
void ignoreGenericError(void*, const char*, ...) {}

}  // namespace

bool XmlDocument::serialise(const MarkupSink& sink, const std::string& encoding,
                            bool& badEncoding) const {
  xmlSetGenericErrorFunc(nullptr, ignoreGenericError);
  MarkedOutput output(sink, *deferred_);
  xmlSaveCtxtPtr context =
      xmlSaveToIO(writeMarked, keepOpen, &output, encoding.c_str(), XML_SAVE_FORMAT);
  badEncoding = !context;
  if (!context) return false;
  const long written = xmlSaveDoc(context, doc_);
  const int closed = xmlSaveClose(context);
  return written >= 0 && closed >= 0;
}

Status XmlDocument::writeTo(OutputFile& file, const std::string& encoding) const {
  bool badEncoding = false;
  const bool saved = serialise([&file](std::string_view bytes) { file.write(bytes); }, encoding,
                               badEncoding);
  if (badEncoding) return Status::failure("cannot write " + file.path() + ": unknown encoding " + encoding);
  if (!file.status()) return file.status();
  if (!saved) return Status::failure("cannot write " + file.path());
  return {};
}

Status XmlDocument::save(const std::string& path, const std::string& encoding) const {
  return replaceFile(path, [&](OutputFile& file) { return writeTo(file, encoding); });
}

std::string XmlDocument::text(const std::string& encoding) const {
  std::string result;
  bool badEncoding = false;
  serialise([&result](std::string_view bytes) { result.append(bytes); }, encoding, badEncoding);
  return result;
}

}  // namespace kvtrack::xml
