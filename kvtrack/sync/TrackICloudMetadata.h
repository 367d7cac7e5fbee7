#pragma once
// The track's side of a synchronised store (the host's ICloudSynchronizer):
// a small metadata record per track, so that the other side lists tracks
// without reading their files; the reverse mapping from a record to a
// track; handing photos to the store and asking for their download; and
// replacing a track's library file by a copy received from the store.
//
// The record is a property list of texts, keys and forms:
//   "name", "trackId", "iCloudId"       the texts (ids only when present)
//   "path"                              array of the names of the folders
//                                       holding the track, topmost first,
//                                       the root's empty name left out
//   "starttime", "endtime"              ISODate text with zone (when present)
//   "photocount", "waypointcount",
//   "geocachecount"                     "%d"
//   "length"                            "%f" of the length in km narrowed to
//                                       single precision, as in the index
//   "timestamp"                         "%d" of whole seconds since
//                                       2001-01-01T00:00:00Z when built
// Readers give empty values or 0 for missing keys; nothing here throws.

#include "kvtrack/sync/PropertyList.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/ISODate.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack::TrackICloud {

using Metadata = PropertyRecord;

/// Every key of the record.
inline constexpr std::array<std::string_view, 11> kMetadataKeys = {
    "name",   "path",       "trackId",       "iCloudId",      "starttime", "endtime",
    "photocount", "waypointcount", "geocachecount", "length", "timestamp"};
/// The record in a property-list file; absent (logged) when unreadable.
std::optional<Metadata> readMetadata(const std::string& path);

/// The record, built under the track's lock; "timestamp" is now.
Metadata iCloudMetadata(Track& track);
/// Writes the record as a property list to the path (not atomically) and
/// sets the track's iCloudTimestamp to its "timestamp". False, logged, when
/// the file could not be written; the track is then unchanged.
bool writeiCloudMetadataToURL(Track& track, const std::string& path);

std::optional<std::string> trackIdFromMetadata(const Metadata& metadata);
std::string nameFromMetadata(const Metadata& metadata);
std::optional<std::string> iCloudIdFromMetadata(const Metadata& metadata);
std::optional<ISODate> startTimeFromMetadata(const Metadata& metadata);
std::optional<ISODate> endTimeFromMetadata(const Metadata& metadata);
int32_t photoCountFromMetadata(const Metadata& metadata);
int32_t waypointCountFromMetadata(const Metadata& metadata);
int32_t geocacheCountFromMetadata(const Metadata& metadata);
/// Kilometres.
float lengthFromMetadata(const Metadata& metadata);
/// Folder names, topmost first; empty when missing or not a list.
std::vector<std::string> pathFromMetadata(const Metadata& metadata);
/// Seconds since 2001-01-01T00:00:00Z; 0 when missing.
double timestampFromMetadata(const Metadata& metadata);

/// Under the track's lock: name, ids, times, counts, length and
/// iCloudTimestamp from the record. The folder path is not applied.
void copyMetadataToTrack(const Metadata& metadata, Track& track);

/// Hands the file of every photo without an iCloudId to the synchronizer,
/// stores the id it returns, clears the photo's path (from then on it
/// resolves through the synchronizer) and marks the track dirty. Photos the
/// synchronizer does not take stay as they were.
void movePhotosToiCloud(Track& track);
/// When the track has an iCloudId and the synchronizer is active: asks it
/// in the background to download every thumbnail, then every full photo,
/// of the photos with an iCloudId, in point order. Returns at once.
void requestPhotosFromiCloud(Track& track);
/// Replaces the track's library file by the inflated gzip file at gzPath;
/// unsaved points are dropped, the new file is read on next use. Fails,
/// logged, with nothing changed, when the file does not inflate.
Status updateLibraryFileFromiCloudFile(Track& track, const std::string& gzPath);

}  // namespace kvtrack::TrackICloud
