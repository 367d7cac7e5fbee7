#pragma once
// Reading and writing image metadata through the external exiftool program
// (the Debian program on PATH unless the settings name another path).
//
// Every command is given as the shell command line that one exiftool process
// would run; execute() logs it first and then either runs it through the
// shell or, for batches, hands the same arguments to a persistent exiftool
// session (-stay_open), which gives the same results without starting Perl
// for every photo.

#include "kvtrack/support/ISODate.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class ExifTool {
 public:
  /// Tag description as exiftool prints it → value text.
  using Tags = std::map<std::string, std::string>;

  /// The exiftool executable: the preference exiftoolPath, else "exiftool".
  static std::string exiftoolPath();

  /// Logs the command line, then runs it: through a persistent session when
  /// sessions are on and the line is a plain exiftool call, else through
  /// the shell. Returns exiftool's exit status (0 success) in both cases, -1
  /// when nothing could be started; output, when asked for, receives standard
  /// output (else it goes to ours, as from the shell). Two writes of one file
  /// never run at once.
  static int execute(const std::string& commandLine, std::string* output = nullptr);

  /// Runs the command lines as execute() would run each in turn, and
  /// returns their statuses in order; outputs, when given, receives each
  /// one's standard output. Plain exiftool calls go to the persistent
  /// sessions many at a time (one round trip for many commands), the batch
  /// cut into one contiguous part per session, the parts side by side (in
  /// one part when a file is written twice). Command lines are logged as
  /// their part starts.
  static std::vector<int> executeBatch(const std::vector<std::string>& commandLines,
                                       std::vector<std::string>* outputs = nullptr);

  /// Persistent sessions: on by default, off with the preference
  /// exiftoolPersistentSessions = false or with this call.
  static void setPersistentSessions(bool enabled);
  /// Drops the choice made with setPersistentSessions(); the preference
  /// decides again.
  static void resetPersistentSessions();
  static bool persistentSessions();
  /// Ends all sessions (the host calls this before it exits).
  static void shutdownSessions();

  // --- reading ----------------------------------------------------------------
  static std::optional<Tags> exifTagsForFile(const std::string& path);
  /// exifTagsForFile for many files at once (through executeBatch), in order.
  static std::vector<std::optional<Tags>> exifTagsForFiles(const std::vector<std::string>& paths);
  static std::optional<Tags> exifTagsForFileAndXmp(const std::string& path);
  static double latitudeFromDictionary(const Tags& tags);
  static double longitudeFromDictionary(const Tags& tags);
  static double elevationFromDictionary(const Tags& tags);
  static int rotationFromDictionary(const Tags& tags);
  static std::optional<ISODate> digitizedFromDictionary(const Tags& tags,
                                                        int32_t defaultOffsetInMinutes,
                                                        bool forceTimezone);
  static std::optional<ISODate> isoDateForFile(const std::string& path,
                                               int32_t defaultOffsetInMinutes, bool forceTimezone);
  static std::optional<std::string> cityFromDictionary(const Tags& tags);
  static std::optional<std::string> countryFromDictionary(const Tags& tags);
  static std::optional<std::string> stateFromDictionary(const Tags& tags);
  static std::optional<std::string> locationFromDictionary(const Tags& tags);
  static std::optional<std::string> isoCountryCodeFromDictionary(const Tags& tags);
  static bool isPhotoExtension(const std::string& path);
  static bool canWriteToFile(const std::string& path);

  // --- writing ----------------------------------------------------------------
  /// Copies all tags from one file to another; the exit status.
  static int copyTagsFrom(const std::string& source, const std::string& target);
};

}  // namespace kvtrack
