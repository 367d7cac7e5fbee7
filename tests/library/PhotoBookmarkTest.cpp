// A photo that moved is found again through its bookmark when its track is
// loaded, and the renewed bookmark is saved with the track.

#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/support/KvSandbox.h"
#include "tests/library/LibraryTestSupport.h"

#include <filesystem>

namespace kvtrack::testing {
namespace {

// Bookmarks that follow a moved file and are always reported stale, as a
// sandbox reports them after the file moved.
class MovingSandbox : public KvSandbox {
 public:
  std::string from, to;
  std::string base64bookmarkForFile(const std::string& path) override { return "bookmark:" + path; }
  std::optional<std::string> urlForBase64Bookmark(const std::string& bookmark, bool& stale) override {
    stale = true;
    const std::string path = bookmark.substr(std::string("bookmark:").size());
    return path == from ? to : path;
  }
};

TEST_F(LibraryTest, LoadingFollowsMovedPhotosAndSavesTheRenewedBookmark) {
  auto sandbox = std::make_shared<MovingSandbox>();
  KvSandbox::setSingleton(sandbox);
  sandbox->from = folder.write("summit.jpg", "jpeg");
  sandbox->to = folder.file("moved/summit.jpg");
  auto track = walk("Walk", 3);
  track->trackPoints()[1]->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath(sandbox->from));
  track->trackPoints()[1]->trackPhotos()[0]->updateBookmarkFromPath();
  library->addTrack(track);
  // Moved before the library opens again: it may load tracks at once.
  std::filesystem::create_directories(folder.file("moved"));
  std::filesystem::rename(sandbox->from, sandbox->to);
  reopen();

  const TrackPtr loaded = library->tracks().front();
  const TrackPhotoPtr photo = loaded->trackPoints()[1]->trackPhotos().at(0);
  EXPECT_EQ(photo->originalFilepath(), sandbox->to);
  EXPECT_EQ(photo->base64Bookmark(), "bookmark:" + sandbox->to);
  EXPECT_TRUE(loaded->isDirty()) << "the renewed bookmark must be saved";

  reopen();
  const TrackPtr again = library->tracks().front();
  EXPECT_EQ(again->trackPoints()[1]->trackPhotos().at(0)->originalFilepath(), sandbox->to);
  KvSandbox::setSingleton(nullptr);
}

}  // namespace
}  // namespace kvtrack::testing
