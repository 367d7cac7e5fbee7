#pragma once
// Shared pieces of the geocache SAX handlers (internal to this folder).

#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/model/Geocache.h"

#include <memory>
#include <string>
#include <string_view>

namespace kvtrack::GeocacheGPX::detail {

/// Names are matched by their endings so that any namespace prefix works.
inline bool endsWith(std::string_view name, std::string_view ending) {
  return name.size() >= ending.size() && name.substr(name.size() - ending.size()) == ending;
}

/// A handler pushed at the start of its own element. It counts the nesting
/// so that only that element's end hands back, whatever the names inside,
/// and collects the text of the child being read.
class ElementHandler : public xml::SaxHandler {
 public:
  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) final {
    text_.clear();
    // A child handler that took over also receives the child's end.
    if (depth_ == 0 && childStarted(parser, name, attributes)) return;
    ++depth_;
  }

  void endElement(xml::SaxParser& parser, std::string_view name) final {
    if (depth_ == 0) {
      finished();
      parser.handBack();
      return;
    }
    --depth_;
    if (depth_ == 0) childEnded(name, text_);
  }

  void characters(xml::SaxParser&, std::string_view chunk) final { text_.append(chunk); }

 protected:
  /// A direct child starts; true when a child handler was pushed for it.
  virtual bool childStarted(xml::SaxParser&, std::string_view, const xml::Attributes&) {
    return false;
  }
  /// The end of a direct child with its text.
  virtual void childEnded(std::string_view name, const std::string& text) = 0;
  /// This handler's own element ends.
  virtual void finished() {}

 private:
  std::string text_;
  int depth_ = 0;
};

using LogFactory = void (*)(Geocache&, xml::SaxParser&, const xml::Attributes&);

/// A "logs" list: every child ending in "log" gets a log handler, anything
/// else is skipped ("logs" itself does not end in "log").
class LogListHandler final : public ElementHandler {
 public:
  LogListHandler(Geocache& geocache, LogFactory logFactory)
      : geocache_(geocache), logFactory_(logFactory) {}

 protected:
  bool childStarted(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (!endsWith(name, "log")) return false;
    logFactory_(geocache_, parser, attributes);
    return true;
  }
  void childEnded(std::string_view, const std::string&) override {}

 private:
  Geocache& geocache_;
  LogFactory logFactory_;
};

/// Appends a new log to the geocache, with its "id" attribute.
inline GeocacheLogPtr appendLog(Geocache& geocache, const xml::Attributes& attributes) {
  auto log = std::make_shared<GeocacheLog>();
  if (auto id = attributes.value("id")) log->identifier = std::string(*id);
  geocache.logs.push_back(log);
  return log;
}

}  // namespace kvtrack::GeocacheGPX::detail
