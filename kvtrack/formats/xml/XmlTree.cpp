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

void XmlElement::addPreformattedMarkup(std::string_view markup) {
  if (markup.empty()) return;
  xmlNode* t = xmlNewDocTextLen(node_->doc, reinterpret_cast<const xmlChar*>(markup.data()),
                                static_cast<int>(markup.size()));
  t->name = xmlStringTextNoenc;  // libxml2's marker for text written without escaping
  // Linked by hand: xmlAddChild would merge it into a preceding text node,
  // reallocating an ever longer text for every piece added.
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

XmlDocument::XmlDocument(std::string_view rootName) : doc_(xmlNewDoc(BAD_CAST "1.0")) {
  doc_->dict = xmlDictCreate();
  const std::string name(rootName);
  xmlNode* root = xmlNewDocNode(doc_, nullptr, chars(name), nullptr);
  xmlDocSetRootElement(doc_, root);
}

XmlDocument::~XmlDocument() { xmlFreeDoc(doc_); }

XmlElement XmlDocument::root() const { return XmlElement(xmlDocGetRootElement(doc_)); }

namespace {

// libxml2 hands the serialised bytes here; they go to the file through the
// system-call seam like every other file the library writes.
int writeToOutputFile(void* context, const char* bytes, int length) {
  auto* file = static_cast<OutputFile*>(context);
  file->write(std::string_view(bytes, static_cast<size_t>(length)));
  return file->status() ? length : -1;
}

int keepOpen(void*) { return 0; }

// libxml2 prints I/O errors itself; callers report failures in their own words.
void ignoreGenericError(void*, const char*, ...) {}

}  // namespace

Status XmlDocument::writeTo(OutputFile& file, const std::string& encoding) const {
  xmlSetGenericErrorFunc(nullptr, ignoreGenericError);
  xmlSaveCtxtPtr context = xmlSaveToIO(writeToOutputFile, keepOpen, &file, encoding.c_str(),
                                       XML_SAVE_FORMAT);
  if (!context) return Status::failure("cannot write " + file.path() + ": unknown encoding " + encoding);
  const long written = xmlSaveDoc(context, doc_);
  const int closed = xmlSaveClose(context);
  if (!file.status()) return file.status();
  if (written < 0 || closed < 0) return Status::failure("cannot write " + file.path());
  return {};
}

Status XmlDocument::save(const std::string& path, const std::string& encoding) const {
  return replaceFile(path, [&](OutputFile& file) { return writeTo(file, encoding); });
}

std::string XmlDocument::text(const std::string& encoding) const {
  xmlChar* buffer = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(doc_, &buffer, &size, encoding.c_str(), 1);
  std::string result(reinterpret_cast<const char*>(buffer), static_cast<size_t>(size));
  xmlFree(buffer);
  return result;
}

}  // namespace kvtrack::xml
