#pragma once
// The track view's own script and style sheet (TrackView.js and
// TrackView.css beside this file), compiled into the library.

#include <string_view>

namespace kvtrack {

extern const std::string_view kTrackViewScript;
extern const std::string_view kTrackViewStyle;

}  // namespace kvtrack
