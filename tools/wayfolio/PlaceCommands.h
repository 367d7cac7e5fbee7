#pragma once
// wayfolio places and geocode: place names for a track's photos through
// the place cache, and single lookups by name, position or map link.

#include "tools/wayfolio/Commands.h"

namespace wayfolio {

void addPlaceCommands(CLI::App& app, Invocation& invocation);  // places, geocode

}  // namespace wayfolio
