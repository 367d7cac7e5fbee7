#pragma once
// Streaming XML reading on libxml2's SAX2 interface, driving a chain of
// handlers: each handler receives the events while it is current, may hand
// them to a child handler for a sub-element (pushHandler) and gives them
// back to its parent at its element's end (handBack). No document tree is
// built. Element and attribute names arrive as written in the file
// (qualified: "wayfolio:speed"). Text between two tags arrives as one chunk.
//
// Hostile input: network access is off, external entities are never
// loaded (logged instead), and libxml2's limits on entity expansion, text
// and attribute sizes stay in force. An exception thrown by a handler stops
// the parse; it is caught at the libxml2 boundary and reported as an error.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack::xml {

struct Attribute {
  std::string_view name;  // qualified
  std::string_view value;
};

class Attributes {
 public:
  explicit Attributes(const std::vector<Attribute>& list) : list_(list) {}
  std::optional<std::string_view> value(std::string_view name) const {
    for (const auto& a : list_) {
      if (a.name == name) return a.value;
    }
    return std::nullopt;
  }
  bool has(std::string_view name) const { return value(name).has_value(); }
  const std::vector<Attribute>& all() const { return list_; }

 private:
  const std::vector<Attribute>& list_;
};

struct ParseError {
  int code = 0;              // libxml2's error number (5: content after the document end)
  std::string description;   // libxml2's message, without the trailing newline
  int line = 0;
  int column = 0;

  /// For people: "line 12, column 5: <description>", or the description
  /// alone when there is no position (a file that cannot be opened).
  std::string reason() const {
    if (line <= 0) return description;
    return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + description;
  }
};

class SaxParser;

class SaxHandler {
 public:
  virtual ~SaxHandler() = default;
  virtual void startElement(SaxParser& parser, std::string_view name, const Attributes& attributes);
  virtual void endElement(SaxParser& parser, std::string_view name);
  virtual void characters(SaxParser& parser, std::string_view chunk);
  /// The current handler hears about an error first, then its parents in
  /// turn, until one returns true (it reported the error).
  virtual bool parseError(SaxParser& parser, const ParseError& error);
};

class SaxParser {
 public:
  SaxParser();
  ~SaxParser();
  SaxParser(const SaxParser&) = delete;
  SaxParser& operator=(const SaxParser&) = delete;

  /// Reads the file with the root handler first in the chain. False when the
  /// file cannot be opened or is not well-formed; events already delivered
  /// stay delivered.
  bool parseFile(const std::string& path, SaxHandler& root);
  bool parseText(std::string_view text, SaxHandler& root);

  /// Makes the handler current; its parent is the handler current before.
  void pushHandler(std::unique_ptr<SaxHandler> handler);
  /// The same for a handler the caller keeps alive until it has handed
  /// back (one handler reused for every element of a long list).
  void pushHandler(SaxHandler& handler);
  /// The current handler gives the events back to its parent. The handler
  /// is destroyed after the event that called this has returned.
  void handBack();
  /// The handler below the current one, or null for the root.
  SaxHandler* parentHandler() const;

  /// The last error, when the parse failed.
  const std::optional<ParseError>& error() const { return error_; }
  /// Stops the parse after the current event (no error is recorded).
  void stop();

  struct Context;  // libxml2 glue

 private:
  bool run(void* input, SaxHandler& root);  // takes an xmlParserInputBufferPtr

  std::unique_ptr<Context> context_;
  std::optional<ParseError> error_;
};

}  // namespace kvtrack::xml
