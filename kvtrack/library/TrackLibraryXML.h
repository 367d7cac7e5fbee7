#pragma once
// The library index "library.wayfolio": the folder tree with every track's
// metadata (names, file names, times, counts, length, identifiers), so the
// library opens without reading any track file.

#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/library/TrackLibraryFolder.h"
#include "kvtrack/support/Status.h"

#include <functional>

#include <string>
#include <vector>

namespace kvtrack {

class TrackLibrary;

class TrackLibraryXML {
 public:
  /// True for the library's own index: folders kept out of it are left out
  /// when writing, and the stored track counter is applied when reading.
  bool isStandardLibrary() const { return isStandardLibrary_; }
  void setIsStandardLibrary(bool value) { isStandardLibrary_ = value; }

  /// Reads the index into the folder (tracks stay unloaded). Fails when the
  /// file is missing, broken or not an index; what was read before an
  /// error stays.
  Status importFrom(const std::string& path, const TrackLibraryFolderPtr& folder);
  Status importText(std::string_view text, const TrackLibraryFolderPtr& folder);
  /// Writes the folder's tree; on failure (logged) the old file is kept.
  Status exportTo(const std::string& path, const TrackLibraryFolderPtr& folder);
  /// The index of the folder's tree as written.
  std::string exportText(const TrackLibraryFolderPtr& folder) const;
  /// The same with the library as the folder.
  Status importFrom(const std::string& path);
  Status exportTo(const std::string& path);

 private:
  using Parse = std::function<bool(xml::SaxParser&, xml::SaxHandler&)>;
  Status read(const TrackLibraryFolderPtr& folder, const Parse& parse);

  bool isStandardLibrary_ = true;
};

/// Percent-escaping of index texts through the Mac OS Roman encoding: every
/// character not allowed in a URL becomes "%XX" per byte of that encoding.
std::string escapeForIndex(std::string_view text);
/// The reverse; characters Mac OS Roman cannot hold do not come back.
std::string unescapeFromIndex(std::string_view text);

}  // namespace kvtrack
