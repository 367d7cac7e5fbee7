#pragma once
// The sync folder: a folder the user keeps in step between machines
// (Nextcloud, Syncthing, a share) that mirrors the library's tracks.

namespace wayfolio {

/// Installs the mirror into the sync folder named by the settings, so that
/// every command keeps it current as it saves; does nothing without one.
void installConfiguredSynchronizer();

}  // namespace wayfolio
