#pragma once
// A geocache description as a web page and as plain text. Descriptions are
// HTML fragments as the geocaching sites deliver them.

#include "kvtrack/model/Geocache.h"

#include <string>

namespace kvtrack {

/// A minimal XHTML 1.0 Transitional page with the description, unescaped,
/// as the body's one paragraph.
std::string descriptionAsHtmlPage(const Geocache& geocache);
/// The text of that page without markup, white space trimmed at both ends.
std::string descriptionAsPlainText(const Geocache& geocache);

}  // namespace kvtrack
