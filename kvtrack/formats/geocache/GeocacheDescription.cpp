#include "kvtrack/formats/geocache/GeocacheDescription.h"

#include <fmt/format.h>
#include <libxml/HTMLparser.h>
#include <libxml/tree.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace kvtrack {

namespace {

constexpr const char* kPageTemplate =
    "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\" "
    "\"http://www.w3.org/TR/xhtml1/DTD/xhtml1-transitional.dtd\">\n"
    "<html xmlns=\"http://www.w3.org/1999/xhtml\">\n"
    "<head>\n"
    "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\" />\n"
    "<title></title>\n"
    "</head>\n"
    "<body>\n"
    "<p>{}</p>\n"
    "</body>\n"
    "</html>\n";

// Unicode white space and line breaks (NBSP from "&nbsp;" included).
std::string trimWhiteSpace(const std::string& text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  int32_t begin = 0;
  while (begin < length) {
    int32_t next = begin;
    UChar32 c;
    U8_NEXT(bytes, next, length, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    begin = next;
  }
  int32_t end = length;
  while (end > begin) {
    int32_t previous = end;
    UChar32 c;
    U8_PREV(bytes, begin, previous, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    end = previous;
  }
  return text.substr(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
}

}  // namespace

std::string descriptionAsHtmlPage(const Geocache& geocache) {
  return fmt::format(kPageTemplate, geocache.description.value_or(""));
}

std::string descriptionAsPlainText(const Geocache& geocache) {
  const std::string page = descriptionAsHtmlPage(geocache);
  htmlDocPtr document =
      htmlReadMemory(page.data(), static_cast<int>(page.size()), nullptr, "UTF-8",
                     HTML_PARSE_NONET | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING);
  if (!document) return {};
  std::string text;
  if (xmlNodePtr root = xmlDocGetRootElement(document)) {
    if (xmlChar* content = xmlNodeGetContent(root)) {
      text = reinterpret_cast<const char*>(content);
      xmlFree(content);
    }
  }
  xmlFreeDoc(document);
  return trimWhiteSpace(text);
}

}  // namespace kvtrack
