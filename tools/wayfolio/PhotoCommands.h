#pragma once
// wayfolio geotag and photos: attaching image files to tracks by capture
// time, writing positions and place names into them through exiftool, and
// listing a track's photos.

#include "tools/wayfolio/Commands.h"

namespace wayfolio {

void addPhotoCommands(CLI::App& app, Invocation& invocation);  // geotag, photos

}  // namespace wayfolio
