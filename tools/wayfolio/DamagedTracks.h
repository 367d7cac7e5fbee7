#pragma once
// Tracks whose files could not be read whole. Commands that show or export
// a track say so and fail rather than pass off part of a track as all of
// it; commands that change one warn that its original file is kept aside.

#include "kvtrack/model/Track.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wayfolio {

/// "track '2024/Walk' is damaged: its file Track00000003.gpx cannot be read
/// whole (line 9, column 1: ...)", for a loaded track; nothing when sound.
std::optional<std::string> damageMessage(const kvtrack::Track& track);

/// Reads the tracks' points; throws CommandError for the first damaged one,
/// its message followed by "; <consequence>".
void requireWholeTracks(const std::vector<kvtrack::TrackPtr>& tracks, std::string_view consequence);

/// Reads the track's points; a damaged track gets a warning on standard
/// error before the command changes it.
void warnBeforeChanging(kvtrack::Track& track);

}  // namespace wayfolio
