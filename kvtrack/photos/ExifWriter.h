#pragma once
// Writes a photo's position, and on request its place names, keywords and
// capture time, into the image file through exiftool, one command line per
// file built from fixed argument templates.
//
// Files exiftool may write (ExifTool::canWriteToFile) are written through a
// temporary copy: exiftool writes "<TMPDIR>exiftool.img", whose bytes then
// replace the photo atomically, and the photo gets its former modification
// time back (Linux cannot set a creation date; that time is what file
// managers and photo tools show). A photo exiftool cannot write stays
// untouched. Other formats get an XMP side file beside them, chosen by the
// preference rawFileMode (2: update the side file in place; otherwise build
// it with all of the photo's tags).
//
// The temporary file has one fixed name, so writes through it are
// serialised in this process; it lives in the private sandbox folder unless
// TMPDIR names a folder of our own, so no other user can plant a link there.

#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/model/TrackPoint.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kvtrack {

/// A photo with the position to write into it (degrees, metres).
struct PhotoAtPosition {
  TrackPhotoPtr photo;
  double latitude = 0.0, longitude = 0.0, elevation = 0.0;
};

class ExifWriter {
 public:
  /// A dry run builds and records every command line but runs, deletes and
  /// logs nothing.
  explicit ExifWriter(bool dryRun = false) : dryRun_(dryRun) {}

  // The four flags of every entry point select what is written:
  //   GPSLocation          latitude, longitude and altitude
  //   locationInformation  city, state, country, country code, sub-location (set or cleared)
  //   addKeywords          each place name also as keyword and XMP subject
  //                        (only together with locationInformation)
  //   timeStamps           the four date tags, from the photo's timeOfPhoto

  /// Starts access to the file, writes at the photo's point, stops access.
  void updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation, bool locationInformation,
                                bool addKeywords, bool timeStamps);
  /// With an explicit position (degrees, metres).
  void updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation, bool locationInformation,
                                bool addKeywords, bool timeStamps, double latitude,
                                double longitude, double elevation);
  /// At the photo's point into the given file; a photo without point is not
  /// written. withActionlist is accepted and has no effect.
  void updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation, bool locationInformation,
                                bool addKeywords, bool timeStamps, const std::string& filepath,
                                bool withActionlist);
  /// The full operation: nothing happens when the file does not exist. An
  /// elevation of 0 or NaN writes no altitude.
  void updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation, bool locationInformation,
                                bool addKeywords, bool timeStamps, const std::string& filepath,
                                bool withActionlist, double latitude, double longitude,
                                double elevation);
  /// Each photo as the explicit-position entry would write it, with
  /// exiftool's work for many photos handed over at once (spread over the
  /// persistent sessions). exiftool writes each photo's new version beside
  /// it under a hidden name of its own, which is then renamed over the
  /// photo, so one that exiftool cannot write stays untouched while the
  /// others are written. Side files, other iPhoto renditions and dry runs
  /// go one photo at a time. Returns the original paths of the photos not
  /// written.
  std::vector<std::string> updateExifForGPSLocation(const std::vector<PhotoAtPosition>& photos,
                                                    bool GPSLocation, bool locationInformation,
                                                    bool addKeywords, bool timeStamps);
  /// Every photo of every point, in order, under the track's lock.
  void updateExifForGPSLocation(Track& track, bool GPSLocation, bool locationInformation,
                                bool addKeywords, bool timeStamps);
  void updateExifForGPSLocation(TrackPoint& point, bool GPSLocation, bool locationInformation,
                                bool addKeywords, bool timeStamps);

  /// The command lines run (or, in a dry run, that would run), in order.
  const std::vector<std::string>& commandLines() const { return commandLines_; }
  /// Photos (and other renditions) whose data were replaced or whose side
  /// file command ran, and those whose write failed.
  size_t written() const { return written_; }
  size_t failed() const { return failed_; }

  /// "<TMPDIR>exiftool.img" as described above; empty when no private
  /// folder can be had.
  static std::string temporaryFile();

 private:
  int run(const std::string& commandLine);
  bool writeThroughCopy(const std::string& arguments, const std::string& file,
                        bool restoreTimes);
  static std::string copyCommand(const std::string& arguments, const std::string& file,
                                 const std::string& temporary);
  /// Puts exiftool's copy over the file when exiftool succeeded (its bytes,
  /// or the copy itself when it lies beside the file); counts and logs the
  /// outcome and removes the copy.
  bool replaceFromCopy(int status, const std::string& temporary, const std::string& file,
                       bool restoreTimes, bool beside);

  bool dryRun_;
  std::vector<std::string> commandLines_;
  size_t written_ = 0;
  size_t failed_ = 0;
};

}  // namespace kvtrack
