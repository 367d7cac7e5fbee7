#include "kvtrack/library/TrackLibraryXML.h"

#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

#include <fmt/format.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace kvtrack {

namespace {

constexpr std::string_view kRootElement = "wayfoliolib";
constexpr std::string_view kFolderElement = "folder";
constexpr std::string_view kTrackElement = "trk";

// The library whose index this is: the folder itself when it is the root,
// else the running library.
TrackLibrary* libraryOf(TrackLibraryFolder* folder) {
  if (auto* library = dynamic_cast<TrackLibrary*>(folder)) return library;
  return TrackLibrary::current().get();
}

// --- Mac OS Roman percent-escaping -------------------------------------------

// Index texts have always been escaped through Mac OS Roman; files written
// long ago must keep reading the same.
constexpr const char* kIndexEncoding = "macintosh";

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

// ICU converters are not thread-safe: each thread keeps its own, opened once
// (opening one per text made reading a large index several times slower).
UConverter* openIndexConverter() {
  thread_local Converter converter = [] {
    UErrorCode status = U_ZERO_ERROR;
    Converter opened(ucnv_open(kIndexEncoding, &status));
    if (U_FAILURE(status)) {
      logf("TrackLibraryXML: cannot open the {} converter: {}", kIndexEncoding, u_errorName(status));
      return Converter();
    }
    return opened;
  }();
  if (converter) ucnv_reset(converter.get());
  return converter.get();
}

std::u16string utf16FromUtf8(std::string_view text) {
  if (text.empty()) return {};
  std::u16string result(text.size(), u'\0');  // never more UTF-16 units than bytes
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(result.data(), static_cast<int32_t>(result.size()), &length, text.data(),
                       static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
  if (U_FAILURE(status)) return {};
  result.resize(static_cast<size_t>(length));
  return result;
}

std::string utf8FromUtf16(std::u16string_view text) {
  if (text.empty()) return {};
  std::string result(text.size() * 3, '\0');  // at most three bytes per UTF-16 unit
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8WithSub(result.data(), static_cast<int32_t>(result.size()), &length, text.data(),
                     static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
  if (U_FAILURE(status)) return {};
  result.resize(static_cast<size_t>(length));
  return result;
}

// Characters the converter cannot encode become its substitute byte.
std::string macRomanFromUtf8(std::string_view text) {
  // ASCII is the same in both encodings.
  if (std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; })) {
    return std::string(text);
  }
  UConverter* converter = openIndexConverter();
  if (!converter) return std::string(text);
  const std::u16string unicode = utf16FromUtf8(text);
  const auto units = static_cast<int32_t>(unicode.size());
  std::string bytes(
      static_cast<size_t>(UCNV_GET_MAX_BYTES_FOR_STRING(units, ucnv_getMaxCharSize(converter))),
      '\0');
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = ucnv_fromUChars(converter, bytes.data(), static_cast<int32_t>(bytes.size()),
                                         unicode.data(), units, &status);
  if (U_FAILURE(status)) {
    logf("TrackLibraryXML: cannot encode text: {}", u_errorName(status));
    return std::string(text);
  }
  bytes.resize(static_cast<size_t>(length));
  return bytes;
}

std::string utf8FromMacRoman(std::string_view bytes) {
  if (std::all_of(bytes.begin(), bytes.end(), [](unsigned char c) { return c < 0x80; })) {
    return std::string(bytes);
  }
  UConverter* converter = openIndexConverter();
  if (!converter) return std::string(bytes);
  // A single-byte encoding: one UTF-16 unit per byte, plus room for the terminator.
  std::u16string unicode(bytes.size() + 1, u'\0');
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = ucnv_toUChars(converter, unicode.data(), static_cast<int32_t>(unicode.size()),
                                       bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  if (U_FAILURE(status)) {
    logf("TrackLibraryXML: cannot decode text: {}", u_errorName(status));
    return std::string(bytes);
  }
  unicode.resize(static_cast<size_t>(length));
  return utf8FromUtf16(unicode);
}

// What URL escaping leaves alone: the unreserved characters and the
// sub-delimiters, ':', '@', '/' and '?'.
bool isKeptAsIs(unsigned char byte) {
  if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9')) {
    return true;
  }
  switch (byte) {
    case '-': case '.': case '_': case '~':
    case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+':
    case ',': case ';': case '=': case ':': case '@': case '/': case '?':
      return true;
    default:
      return false;
  }
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// --- writing ---------------------------------------------------------------------

std::string timeText(const std::optional<ISODate>& time) {
  return time ? time->descriptionWithTimezone(true) : std::string();
}

// "%d" of a value truncated toward zero; clamped so that far-off values stay
// defined (reading clamps the same way).
int32_t truncatedToInt32(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(std::numeric_limits<int32_t>::max())) {
    return std::numeric_limits<int32_t>::max();
  }
  if (value <= static_cast<double>(std::numeric_limits<int32_t>::min())) {
    return std::numeric_limits<int32_t>::min();
  }
  return static_cast<int32_t>(value);
}

void exportTrack(const Track& track, xml::XmlElement& element) {
  xml::XmlElement trk = element.addChild(kTrackElement);
  trk.setAttribute("name", track.name());
  trk.setAttribute("filename", track.filename().value_or(std::string()));
  trk.setAttribute("starttime", timeText(track.startTime()));
  trk.setAttribute("endtime", timeText(track.endTime()));
  trk.setAttribute("photocount", fmt::format("{}", track.photoCount()));
  trk.setAttribute("waypointcount", fmt::format("{}", track.waypointCount()));
  trk.setAttribute("geocachecount", fmt::format("{}", track.geocacheCount()));
  // Single precision on purpose: existing indexes hold lengths in this form.
  trk.setAttribute("length", fmt::format("{:.6f}", static_cast<float>(track.length())));
  trk.setAttribute("type", fmt::format("{}", track.type()));
  if (track.trackId()) trk.setAttribute("trackId", *track.trackId());
  if (track.iCloudId()) trk.setAttribute("iCloudId", *track.iCloudId());
  if (track.iCloudTimestamp() > 0) {
    trk.setAttribute("iCloudTimestamp", fmt::format("{}", truncatedToInt32(track.iCloudTimestamp())));
  }
  if (track.iCloudIsUploading()) trk.setAttribute("iCloudIsUploading", "yes");
  if (track.description()) trk.setAttribute("description", escapeForIndex(*track.description()));
  if (track.tags()) trk.setAttribute("tags", escapeForIndex(*track.tags()));
  if (track.syncPhotosOniPhone()) trk.setAttribute("syncPhotos", "yes");
  // Design decision: the number of points too, so lists show it without
  // reading every track file. Readers that do not know it skip it.
  trk.setAttribute("pointcount", fmt::format("{}", track.pointCount()));
}

struct IndexWriter {
  bool isStandardLibrary;

  // Subfolders first, then tracks, each in order. The level only tracks the
  // depth of the recursion.
  void exportTrackLibraryFolder(const TrackLibraryFolderPtr& folder, xml::XmlElement& element,
                                int level) {
    std::lock_guard<TrackLibraryFolder> lock(*folder);
    for (const TrackLibraryFolderPtr& subfolder : folder->folders()) {
      if (isStandardLibrary && subfolder->doNotSaveInStandardLibrary()) continue;
      xml::XmlElement child = element.addChild(kFolderElement);
      child.setAttribute("name", subfolder->name());
      exportTrackLibraryFolder(subfolder, child, level + 1);
    }
    // The plain accessors only: writing the index never loads a track.
    for (const TrackPtr& track : folder->tracks()) exportTrack(*track, element);
  }
};

// --- reading -------------------------------------------------------------------

class IndexHandler final : public xml::SaxHandler {
 public:
  IndexHandler(const TrackLibraryFolderPtr& target, bool isStandardLibrary)
      : isStandardLibrary_(isStandardLibrary), folders_{target} {}

  void startElement(xml::SaxParser&, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (name == kRootElement) {
      sawRoot_ = true;
      readRoot(attributes);
    } else if (name.starts_with(kFolderElement)) {
      // Deliberately a prefix test, so variant folder element names still read.
      auto folder = TrackLibraryFolder::trackLibraryFolder(
          std::string(attributes.value("name").value_or(std::string_view())));
      folders_.back()->addFolder(folder);
      folders_.push_back(std::move(folder));
    } else if (name == kTrackElement) {
      readTrack(attributes);
    }
  }

  void endElement(xml::SaxParser&, std::string_view name) override {
    // The target folder itself is never popped, whatever the file holds.
    if (name.starts_with(kFolderElement) && folders_.size() > 1) folders_.pop_back();
  }

  bool parseError(xml::SaxParser&, const xml::ParseError& error) override {
    logError(error);
    reported_ = true;
    return true;
  }

  static void logError(const xml::ParseError& error) {
    logf("TrackLibraryXML: Error {}, Description: {}, Line: {}, Column: {}", error.code,
         error.description, error.line, error.column);
  }

  bool reported() const { return reported_; }
  bool sawRoot() const { return sawRoot_; }

 private:
  void readRoot(const xml::Attributes& attributes) {
    TrackLibrary* library = libraryOf(folders_.front().get());
    if (!library) return;
    if (const auto counter = attributes.value("trackCounter"); counter && isStandardLibrary_) {
      library->setTrackCounter(parseIntValue(*counter));
    }
    if (const auto counter = attributes.value("geocacheTrackCounterGPXExternal")) {
      if (const TrackPtr& geocaches = library->geocacheTrack()) {
        geocaches->setCounterGPXExternal(parseIntValue(*counter));
      }
    }
  }

  void readTrack(const xml::Attributes& attributes) {
    const auto name = attributes.value("name");
    const auto filename = attributes.value("filename");
    if (!name || !filename) return;

    TrackPtr track = Track::track();
    folders_.back()->addTrack(track, std::string(*name), std::string(*filename));
    for (const xml::Attribute& attribute : attributes.all()) {
      applyAttribute(*track, attribute.name, attribute.value);
    }
    // Only the metadata were read: the points stay on disk, nothing to save.
    track->setIsDirty(false);
    track->setMetadataDirty(false);
  }

  static void applyAttribute(Track& track, std::string_view name, std::string_view value) {
    if (name == "starttime") {
      track.setStartTime(ISODate::isoDateWithString(value));
    } else if (name == "endtime") {
      track.setEndTime(ISODate::isoDateWithString(value));
    } else if (name == "photocount") {
      track.setPhotoCount(parseIntValue(value));
    } else if (name == "waypointcount") {
      track.setWaypointCount(parseIntValue(value));
    } else if (name == "geocachecount") {
      track.setGeocacheCount(parseIntValue(value));
    } else if (name == "length") {
      track.setLength(static_cast<double>(parseFloatValue(value)));
    } else if (name == "type") {
      track.setType(parseIntValue(value));
    } else if (name == "trackId") {
      track.setTrackId(std::string(value));
    } else if (name == "iCloudId") {
      track.setICloudId(std::string(value));
    } else if (name == "iCloudTimestamp") {
      track.setICloudTimestamp(static_cast<double>(parseIntValue(value)));
    } else if (name == "iCloudIsUploading") {
      std::string lower(value);
      for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      }
      track.setICloudIsUploading(lower == "yes");
    } else if (name == "description") {
      track.setDescription(unescapeFromIndex(value));
    } else if (name == "tags") {
      track.setTags(unescapeFromIndex(value));
    } else if (name == "pointcount") {
      track.setStoredPointCount(parseIntValue(value));
    } else if (name == "syncPhotos") {
      // Case-sensitive, unlike iCloudIsUploading: "YES" has never meant yes here.
      track.setSyncPhotosOniPhone(value == "yes");
    }
  }

  bool isStandardLibrary_;
  std::vector<TrackLibraryFolderPtr> folders_;  // innermost open folder last
  bool reported_ = false;
  bool sawRoot_ = false;
};

}  // namespace

std::string escapeForIndex(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const std::string bytes = macRomanFromUtf8(text);
  std::string result;
  result.reserve(bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (isKeptAsIs(byte)) {
      result += c;
    } else {
      result += '%';
      result += kHex[byte >> 4];
      result += kHex[byte & 0x0F];
    }
  }
  return result;
}

std::string unescapeFromIndex(std::string_view text) {
  // Only decoded bytes are Mac OS Roman; literal text is already UTF-8.
  std::string result;
  std::string decoded;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
    if (low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
      continue;
    }
    if (!decoded.empty()) {
      result += utf8FromMacRoman(decoded);
      decoded.clear();
    }
    result += text[i];
  }
  if (!decoded.empty()) result += utf8FromMacRoman(decoded);
  return result;
}

Status TrackLibraryXML::importFrom(const std::string& path, const TrackLibraryFolderPtr& folder) {
  if (path.empty()) {
    logLine("Error creating URL!");
    return Status::failure("no index file named");
  }
  return read(folder, [&](xml::SaxParser& parser, xml::SaxHandler& handler) {
    return parser.parseFile(path, handler);
  });
}

Status TrackLibraryXML::importText(std::string_view text, const TrackLibraryFolderPtr& folder) {
  return read(folder, [&](xml::SaxParser& parser, xml::SaxHandler& handler) {
    return parser.parseText(text, handler);
  });
}

Status TrackLibraryXML::read(const TrackLibraryFolderPtr& folder, const Parse& parse) {
  if (!folder) {
    logLine("TrackLibraryXML: No folder to read into!");
    return Status::failure("no folder to read into");
  }
  xml::SaxParser parser;
  IndexHandler handler(folder, isStandardLibrary_);
  if (!parse(parser, handler)) {
    const xml::ParseError error = parser.error().value_or(xml::ParseError{-1, "unknown error", 0, 0});
    // A file that cannot be opened never reaches the handler.
    if (!handler.reported()) IndexHandler::logError(error);
    logLine("TrackLibraryXML: Error parsing file!");
    return Status::failure(error.reason());
  }
  if (!handler.sawRoot()) return Status::failure("it is not a library index (no wayfoliolib element)");
  return {};
}

std::string TrackLibraryXML::exportText(const TrackLibraryFolderPtr& folder) const {
  int32_t trackCounter = 0;
  int32_t counterGPXExternal = 0;
  if (const TrackLibrary* library = libraryOf(folder.get())) {
    trackCounter = library->trackCounter();
    if (const TrackPtr& geocaches = library->geocacheTrack()) {
      counterGPXExternal = geocaches->counterGPXExternal();
    }
  }
  xml::XmlDocument document(kRootElement);
  xml::XmlElement root = document.root();
  root.setAttribute("creator", "Wayfolio");
  root.setAttribute("version", "1.0");
  root.setAttribute("trackCounter", fmt::format("{}", trackCounter));
  root.setAttribute("geocacheTrackCounterGPXExternal", fmt::format("{}", counterGPXExternal));
  IndexWriter{isStandardLibrary_}.exportTrackLibraryFolder(folder, root, 1);
  return document.text("UTF-8");
}

Status TrackLibraryXML::exportTo(const std::string& path, const TrackLibraryFolderPtr& folder) {
  if (path.empty()) {
    logLine("Error creating URL!");
    return Status::failure("no index file named");
  }
  if (!folder) {
    logLine("TrackLibraryXML: No folder to write!");
    return Status::failure("no folder to write");
  }
  // Through a temporary file: a failed save keeps the previous index.
  return writeFileAtomically(path, exportText(folder));
}

Status TrackLibraryXML::importFrom(const std::string& path) {
  const TrackLibraryPtr library = TrackLibrary::current();
  if (!library) {
    logLine("TrackLibraryXML: No track library to read into!");
    return Status::failure("no library to read into");
  }
  return importFrom(path, library);
}

Status TrackLibraryXML::exportTo(const std::string& path) {
  const TrackLibraryPtr library = TrackLibrary::current();
  if (!library) {
    logLine("TrackLibraryXML: No track library to write!");
    return Status::failure("no library to write");
  }
  return exportTo(path, library);
}

}  // namespace kvtrack
