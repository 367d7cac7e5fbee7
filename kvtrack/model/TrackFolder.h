#pragma once
// What a track needs of the folder that holds it. The library's folders
// implement it; the model knows no more of them.

#include "kvtrack/model/NamedObject.h"

#include <memory>
#include <string>

namespace kvtrack {

class Track;

class TrackFolder : public NamedObject {
 public:
  using NamedObject::NamedObject;

  /// Position of the track among the folder's tracks, -1 when absent.
  virtual int indexOfTrack(const Track& track) const = 0;
  /// Continues a position text upward to the root (see Track::addPath).
  virtual void addPath(std::string& path) const = 0;
  /// The folder above, absent for the root.
  virtual std::shared_ptr<TrackFolder> parentFolder() const = 0;
};

}  // namespace kvtrack
