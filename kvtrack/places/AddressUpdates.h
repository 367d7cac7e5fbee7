#pragma once
// Place names onto the photos of a point or a whole track, from a reverse
// lookup service. Addresses are kept on photos only: a point without
// photos needs no lookup.

#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/places/GISService.h"

namespace kvtrack::TrackPlaces {

/// Looks up the point's position and gives every photo of the point the
/// five names (an empty name clears the photo's), marking the point dirty.
/// Succeeds at once for a point without photos.
Status updateAddressInformationWithService(TrackPoint& point, GISServiceConvertLocation& service);

/// The same for every point, in order, under the track's lock (network
/// waits included). Stops at the first point that fails: the points
/// before it keep their new names, those after it their old ones.
Status updateAddressInformationWithService(Track& track, GISServiceConvertLocation& service);

}  // namespace kvtrack::TrackPlaces
