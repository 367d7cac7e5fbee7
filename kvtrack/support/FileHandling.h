#pragma once
// FileHandling: the folders kvtrack works in, and the helpers that turn texts
// into safe file names and safe shell words. Paths are plain std::strings
// because most of them end up on a shell command line.

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

class FileHandling {
 public:
  /// The process-wide instance.
  static FileHandling& singleton();

  /// Fresh instances exist for tests; they read the environment on first use.
  FileHandling();
  /// Removes the sandbox this instance created, if any.
  ~FileHandling();
  FileHandling(const FileHandling&) = delete;
  FileHandling& operator=(const FileHandling&) = delete;

  /// The library folder: $WAYFOLIO_LIBRARY, else $XDG_DATA_HOME/wayfolio,
  /// else $HOME/.local/share/wayfolio. Created on first use.
  std::string userApplicationSupport();
  void setUserApplicationSupport(std::string path);
  /// The same folder, never created: for readers that must not leave a
  /// trace where no library is.
  std::string userApplicationSupportIfAny();

  /// $XDG_CACHE_HOME/wayfolio/locations, else $HOME/.cache/wayfolio/locations.
  /// Created on first use.
  std::string writableLocationCache();
  void setWritableLocationCache(std::string path);

  /// A private scratch folder (mode 0700) under $TMPDIR or /tmp, made once
  /// and removed with everything in it when the process exits. Empty when it
  /// cannot be made (logged).
  std::string sandbox();
  /// Uses an existing folder instead; it is never removed by us.
  void setSandbox(std::string path);

  /// Where serial devices live ("/dev/") and the name prefixes of callout
  /// devices ({"ttyACM", "ttyUSB"}).
  std::string deviceFolder();
  void setDeviceFolder(std::string path);
  std::vector<std::string> calloutPrefixes();
  void setCalloutPrefixes(std::vector<std::string> prefixes);

  /// $HOME, else the home folder of the user database; "/" as a last resort.
  static std::string homeFolder();

  /// One shell word that `sh -c` turns back into exactly these bytes. A path
  /// beginning with '-' gets "./" in front so no program reads it as an
  /// option. File names cannot hold NUL bytes, so neither can the result.
  static std::string filenameForShell(std::string_view path);

  /// Escapes a value for use between double quotes that the caller writes.
  static std::string stringForShell(std::string_view value);

  /// Follows a symbolic link (and links to links); the path itself when it
  /// is not a link or the chain cannot be resolved.
  static std::string resolveAlias(std::string_view path);

  /// Turns any text into one harmless file name (no separators, no hidden
  /// files, valid UTF-8, at most 200 bytes, never empty).
  static std::string filenameWithoutSpecialCharacters(std::string_view name);

  /// A fresh random UUID in upper case.
  static std::string guid();
  /// The local time now for names of files kept aside: "20261123-101500".
  static std::string timestampForFilename();

 private:
  void removeSandbox();

  std::mutex mutex_;
  std::string applicationSupport_;
  bool applicationSupportReady_ = false;
  std::string locationCache_;
  bool locationCacheReady_ = false;
  std::string sandbox_;
  bool sandboxOwned_ = false;
  int sandboxCreatorPid_ = 0;
  std::string deviceFolder_ = "/dev/";
  std::vector<std::string> calloutPrefixes_{"ttyACM", "ttyUSB"};
};

}  // namespace kvtrack
