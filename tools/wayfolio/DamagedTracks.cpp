#include "tools/wayfolio/DamagedTracks.h"

#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>

#include <cstdio>

namespace wayfolio {

std::optional<std::string> damageMessage(const kvtrack::Track& track) {
  if (!track.damage()) return std::nullopt;
  return fmt::format("track '{}' is damaged: {}", trackPath(track), *track.damage());
}

void requireWholeTracks(const std::vector<kvtrack::TrackPtr>& tracks, std::string_view consequence) {
  for (const auto& track : tracks) {
    track->loadFromLibrary();
    if (const auto message = damageMessage(*track)) {
      throw CommandError(fmt::format("{}; {}", *message, consequence));
    }
  }
}

void warnBeforeChanging(kvtrack::Track& track) {
  track.loadFromLibrary();
  if (const auto message = damageMessage(track)) {
    std::fprintf(stderr,
                 "wayfolio: warning: %s; its file is kept beside it as %s.damaged-<time> before "
                 "what could be read is saved\n",
                 message->c_str(), track.filename().value_or("?").c_str());
  }
}

}  // namespace wayfolio
