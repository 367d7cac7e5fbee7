#pragma once
// What a TrackPhoto does with its file: finding it again (stored path,
// bookmark, synchronised copy), access in a sandbox, place names read from
// its metadata, the other rendition inside an iPhoto library, and the
// interpolation that places a photo between two track points.
// The model keeps the record; these operations need exiftool and the host's
// hooks, so they live here as free functions.

#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/support/ISODate.h"

#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class TrackPoint;

namespace TrackPhotos {

/// The usable path: the stored one when its file exists, else the one the
/// bookmark leads to, else the synchronised copy, else the stored one.
std::string filepath(TrackPhoto& photo);
/// filepath without the host's sandbox container infix.
std::string filepathWithoutContainer(TrackPhoto& photo);
/// The bundle identifier in that infix ("/Library/Containers/<id>/Data").
void setHostBundleIdentifier(std::string identifier);

void startAccessingSecurityScopedResource(TrackPhoto& photo);
void stopAccessingSecurityScopedResource(TrackPhoto& photo);

/// The file exists, or the iPhoto bridge relocated a linked photo.
bool checkExistenceOfPhotos(TrackPhoto& photo);
bool hasLinkToiPhoto(const TrackPhoto& photo);

// Synchronised copies: absent unless the preference iCloudSupported is on
// and the photo has an iCloudId.
std::optional<std::string> iCloudURL(const TrackPhoto& photo);
std::optional<std::string> iCloudFilepath(const TrackPhoto& photo);
std::optional<std::string> iCloudThumbnailURL(const TrackPhoto& photo);
/// Deletes both copies (errors ignored), forgets the id, marks the track dirty.
void deleteFromiCloud(TrackPhoto& photo);

/// City, state, country, sub-location and country code from the file and
/// its XMP side file; values the file does not name are kept.
void setLocationInformationFromExif(TrackPhoto& photo);
/// The same from tags read already (file tags with the side file's over them).
void setLocationInformationFromTags(TrackPhoto& photo, const ExifTool::Tags& tags);
bool hasLocationData(const TrackPhoto& photo);
/// The country code padded with blanks and cut to three characters
/// ("DE" becomes "DE "); absent without a code.
std::optional<std::string> isoCountryCodeWith3Chars(const TrackPhoto& photo);

/// The other rendition in an iPhoto library ("Masters" <-> "Previews").
std::optional<std::string> iPhotoOtherFilepath(TrackPhoto& photo);
/// The master of a preview path, when it exists.
std::optional<std::string> iPhotoMastersFilepath(const std::string& path);
/// Each preview path replaced by its master where there is one.
std::vector<std::string> updateiPhotoPreviewPaths(const std::vector<std::string>& paths);

/// Linear position at the date between two points (degrees, metres). False,
/// with all three outputs 0, when a point or time is missing, the points'
/// times are not increasing, or the date lies outside them.
bool interpolateForDate(const ISODate& date, const TrackPoint* previousTrackPoint,
                        const TrackPoint* nextTrackPoint, double& longitude, double& latitude,
                        double& elevation);

}  // namespace TrackPhotos
}  // namespace kvtrack
