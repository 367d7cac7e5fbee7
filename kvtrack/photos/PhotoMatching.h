#pragma once
// Attaching image files to tracks by capture time: each photo goes to the
// track point nearest in time, so that the point's position becomes the
// photo's position (written into the file by ExifWriter).
//
// Cameras record local wall-clock time. Capture times are read with the
// zone in the file ignored: into one track with the offset of the track's
// first point; over the library as UTC first, then converted per candidate
// track with the offset of its start time.
// Limits are whole seconds; a limit of 0 or less means no limit.

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/model/Track.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kvtrack {

/// Photo file path → the track that received it.
using FoundPhotos = std::map<std::string, TrackPtr>;

/// Attaches existing files to this point, unsorted, with their EXIF
/// DateTimeOriginal read in the zone of the point's time; no place names.
/// Marks the track dirty and updates it in every case.
void importPhotos(TrackPoint& point, const std::vector<std::string>& files);

/// Matches files to the track's points; the number attached. A file
/// attached already to its nearest point is not attached twice but counts.
int32_t importPhotos(Track& track, const std::vector<std::string>& files, int32_t maxTimeDiff,
                     FoundPhotos* found);

/// Photos taken outside the track: each gets a new point at the last
/// point's position when taken after it, else at the first point's.
void addPhotosToBeginningOrEndOfTrack(Track& track, const std::vector<std::string>& files);

TrackPhotoPtr findFirstPhoto(Track& track);
/// Drops every point's photos and marks the track dirty.
void removePhotoReferences(Track& track);
/// Appends the photos of every point, in point order.
void addTrackPhotos(Track& track, std::vector<TrackPhotoPtr>& into);
/// Lets every photo look for its file (an iPhoto photo may be relocated).
void checkExistenceOfPhotos(Track& track);

/// Finds the track for each file over the whole library (allTracks order,
/// twelve hours at most from the nearest point); the number attached.
/// foundTracks collects the receiving track once per file; the callback
/// runs once for each file that had a time but found no track.
int32_t importPhotosToAllTracks(TrackLibrary& library, const std::vector<std::string>& files,
                                FoundPhotos* foundFiles, std::vector<TrackPtr>* foundTracks,
                                const std::function<void()>& callback);
/// The same over the given tracks in their order (a dry run gives copies);
/// the caller holds the locks the tracks' owner needs.
int32_t importPhotosToTracks(const std::vector<TrackPtr>& tracks,
                             const std::vector<std::string>& files, FoundPhotos* foundFiles,
                             std::vector<TrackPtr>* foundTracks,
                             const std::function<void()>& callback);
/// Into the first selected track without a limit; 0 when none is selected.
int32_t importPhotosToFirstSelectedTrack(TrackLibrary& library,
                                         const std::vector<std::string>& files, FoundPhotos* found);
void addPhotosToBeginningOrEndOfSelectedTracks(TrackLibrary& library,
                                               const std::vector<std::string>& files);

}  // namespace kvtrack
