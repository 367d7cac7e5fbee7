#include "kvtrack/formats/xml/SaxParser.h"

#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <mutex>

namespace kvtrack::xml {

void SaxHandler::startElement(SaxParser&, std::string_view, const Attributes&) {}
void SaxHandler::endElement(SaxParser&, std::string_view) {}
void SaxHandler::characters(SaxParser&, std::string_view) {}
bool SaxHandler::parseError(SaxParser&, const ParseError&) { return false; }

namespace {

// External entities would let a file make us read other files or fetch
// URLs; none is ever loaded.
xmlParserInputPtr refuseExternalEntity(const char* url, const char*, xmlParserCtxtPtr) {
  logf("XML: not loading external entity {}", url ? url : "(unnamed)");
  return nullptr;
}

void installEntityPolicy() {
  static std::once_flag once;
  std::call_once(once, [] {
    xmlInitParser();
    xmlSetExternalEntityLoader(refuseExternalEntity);
  });
}

// Longest text chunk handed on in one piece; libxml2's own text-node limit.
constexpr size_t kMaxChunk = XML_MAX_TEXT_LENGTH;

}  // namespace

struct SaxParser::Context {
  SaxParser* owner = nullptr;
  xmlParserCtxtPtr parser = nullptr;
  SaxHandler* root = nullptr;
  struct Link {
    SaxHandler* handler;
    std::unique_ptr<SaxHandler> owned;  // null for a handler its creator keeps
  };
  std::vector<Link> chain;                           // handlers above the root
  std::vector<std::unique_ptr<SaxHandler>> retired;  // handed back during the current event
  std::string text;                                  // characters since the last tag
  std::vector<Attribute> attributes;
  std::vector<std::string> attributeNames;           // qualified names built for prefixed attributes
  std::string elementName;
  bool failed = false;

  SaxHandler& current() { return chain.empty() ? *root : *chain.back().handler; }

  // The buffer keeps its capacity: one text per element costs no allocation.
  void flushText() {
    if (text.empty()) return;
    current().characters(*owner, text);
    text.clear();
  }

  void fail(const ParseError& error) {
    if (!owner->error_) owner->error_ = error;
    failed = true;
  }

  // Runs one event, turning an escaping exception into a stopped parse.
  template <typename Event>
  void guarded(Event&& event) {
    if (failed) return;
    try {
      event();
    } catch (const std::exception& e) {
      fail({-1, std::string("handler failed: ") + e.what(), lineNumber(), columnNumber()});
      xmlStopParser(parser);
    } catch (...) {
      fail({-1, "handler failed", lineNumber(), columnNumber()});
      xmlStopParser(parser);
    }
    retired.clear();
  }

  int lineNumber() const { return parser && parser->input ? parser->input->line : 0; }
  int columnNumber() const { return parser && parser->input ? parser->input->col : 0; }

  // libxml2's own SAX2 callbacks (DTD, entities) need the parser context as
  // their user data, so ours lives in its private slot.
  static Context& of(void* parserContext) {
    return *static_cast<Context*>(static_cast<xmlParserCtxtPtr>(parserContext)->_private);
  }

  static std::string_view qualified(std::string& storage, const xmlChar* prefix,
                                    const xmlChar* local) {
    const auto* l = reinterpret_cast<const char*>(local);
    if (!prefix) return l;
    storage.assign(reinterpret_cast<const char*>(prefix));
    storage += ':';
    storage += l;
    return storage;
  }

  static void onStart(void* userData, const xmlChar* local, const xmlChar* prefix, const xmlChar*,
                      int, const xmlChar**, int count, int, const xmlChar** values) {
    Context& c = of(userData);
    c.guarded([&] {
      c.flushText();
      c.attributes.clear();
      c.attributeNames.resize(static_cast<size_t>(count));
      for (int i = 0; i < count; ++i) {
        const xmlChar** a = values + 5 * i;  // local, prefix, URI, value, end
        const std::string_view name = qualified(c.attributeNames[static_cast<size_t>(i)], a[1], a[0]);
        c.attributes.push_back(
            {name, std::string_view(reinterpret_cast<const char*>(a[3]),
                                    static_cast<size_t>(a[4] - a[3]))});
      }
      const std::string_view name = qualified(c.elementName, prefix, local);
      c.current().startElement(*c.owner, name, Attributes(c.attributes));
    });
  }

  static void onEnd(void* userData, const xmlChar* local, const xmlChar* prefix, const xmlChar*) {
    Context& c = of(userData);
    c.guarded([&] {
      c.flushText();
      std::string storage;
      c.current().endElement(*c.owner, qualified(storage, prefix, local));
    });
  }

  static void onCharacters(void* userData, const xmlChar* chars, int length) {
    Context& c = of(userData);
    if (c.failed) return;
    c.text.append(reinterpret_cast<const char*>(chars), static_cast<size_t>(length));
    if (c.text.size() >= kMaxChunk) c.guarded([&] { c.flushText(); });
  }

  static void onError(void* userData, xmlErrorPtr error) {
    if (!error || error->level < XML_ERR_ERROR) return;  // warnings are no failure
    Context& c = of(userData);
    if (c.failed) return;
    std::string message = error->message ? error->message : "";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    const ParseError parseError{error->code, message, error->line, error->int2};
    c.fail(parseError);
    // libxml2 would read on to the end without calling us; nothing after the
    // first error is used, so stop reading now.
    xmlStopParser(c.parser);
    try {
      // From the current handler down to the root, until one reports it.
      for (auto it = c.chain.rbegin(); it != c.chain.rend(); ++it) {
        if (it->handler->parseError(*c.owner, parseError)) return;
      }
      c.root->parseError(*c.owner, parseError);
    } catch (...) {
      // reporting must never take the parser down
    }
  }

  static int readFile(void* state, char* buffer, int length) {
    const int fd = *static_cast<int*>(state);
    return static_cast<int>(readSome(fd, buffer, static_cast<size_t>(length)));
  }

  struct Memory {
    std::string_view rest;
  };
  static int readMemory(void* state, char* buffer, int length) {
    auto& memory = *static_cast<Memory*>(state);
    const size_t n = std::min(memory.rest.size(), static_cast<size_t>(length));
    std::memcpy(buffer, memory.rest.data(), n);
    memory.rest.remove_prefix(n);
    return static_cast<int>(n);
  }
};

SaxParser::SaxParser() : context_(std::make_unique<Context>()) {
  context_->owner = this;
  installEntityPolicy();
}

SaxParser::~SaxParser() = default;

void SaxParser::pushHandler(std::unique_ptr<SaxHandler> handler) {
  SaxHandler* raw = handler.get();
  context_->chain.push_back({raw, std::move(handler)});
}

void SaxParser::pushHandler(SaxHandler& handler) { context_->chain.push_back({&handler, nullptr}); }

void SaxParser::handBack() {
  if (context_->chain.empty()) return;  // the root has no parent to hand to
  if (context_->chain.back().owned) context_->retired.push_back(std::move(context_->chain.back().owned));
  context_->chain.pop_back();
}

SaxHandler* SaxParser::parentHandler() const {
  const auto& chain = context_->chain;
  if (chain.empty()) return nullptr;
  return chain.size() == 1 ? context_->root : chain[chain.size() - 2].handler;
}

void SaxParser::stop() {
  if (context_->parser) xmlStopParser(context_->parser);
}

bool SaxParser::parseFile(const std::string& path, SaxHandler& root) {
  error_.reset();
  const UniqueFd file = openFile(path, O_RDONLY);
  if (!file) {
    error_ = ParseError{-1, std::string("cannot open file: ") + std::strerror(errno), 0, 0};
    return false;
  }
  int fd = file.get();
  xmlParserInputBufferPtr input =
      xmlParserInputBufferCreateIO(Context::readFile, nullptr, &fd, XML_CHAR_ENCODING_NONE);
  return input && run(input, root);
}

bool SaxParser::parseText(std::string_view text, SaxHandler& root) {
  error_.reset();
  Context::Memory memory{text};
  xmlParserInputBufferPtr input =
      xmlParserInputBufferCreateIO(Context::readMemory, nullptr, &memory, XML_CHAR_ENCODING_NONE);
  return input && run(input, root);
}

bool SaxParser::run(void* inputBuffer, SaxHandler& root) {
  auto* input = static_cast<xmlParserInputBufferPtr>(inputBuffer);
  Context& c = *context_;
  c.root = &root;
  c.chain.clear();
  c.text.clear();
  c.failed = false;

  xmlSAXHandler sax;
  std::memset(&sax, 0, sizeof sax);
  xmlSAXVersion(&sax, 2);  // keeps the DTD and entity callbacks libxml2 needs
  sax.startElementNs = Context::onStart;
  sax.endElementNs = Context::onEnd;
  sax.characters = Context::onCharacters;
  sax.cdataBlock = Context::onCharacters;
  sax.ignorableWhitespace = Context::onCharacters;
  sax.comment = nullptr;
  sax.processingInstruction = nullptr;
  sax.warning = nullptr;
  sax.error = nullptr;
  sax.fatalError = nullptr;
  sax.serror = Context::onError;

  xmlParserCtxtPtr parser = xmlNewParserCtxt();
  if (!parser) {
    xmlFreeParserInputBuffer(input);
    error_ = ParseError{-1, "out of memory", 0, 0};
    return false;
  }
  // The handler table and our context replace libxml2's tree builder.
  std::memcpy(parser->sax, &sax, sizeof sax);
  parser->_private = &c;
  xmlCtxtUseOptions(parser, XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_NOCDATA);
  xmlParserInputPtr stream = xmlNewIOInputStream(parser, input, XML_CHAR_ENCODING_NONE);
  if (!stream) {
    xmlFreeParserInputBuffer(input);
    xmlFreeParserCtxt(parser);
    error_ = ParseError{-1, "cannot start reading", 0, 0};
    return false;
  }
  inputPush(parser, stream);
  c.parser = parser;

  xmlParseDocument(parser);
  if (!c.failed) c.guarded([&] { c.flushText(); });

  const bool ok = !c.failed && parser->wellFormed;
  if (!ok && !error_) error_ = ParseError{-1, "document is not well-formed", c.lineNumber(), c.columnNumber()};
  c.parser = nullptr;
  if (parser->myDoc) xmlFreeDoc(parser->myDoc);  // only the DTD lives there
  xmlFreeParserCtxt(parser);
  c.chain.clear();
  c.retired.clear();
  c.root = nullptr;
  return ok;
}

}  // namespace kvtrack::xml
