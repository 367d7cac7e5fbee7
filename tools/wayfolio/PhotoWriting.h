#pragma once
// Writing the photos that geotag attached: what to write, and a writer that
// works on a thread of its own while matching goes on.

#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/photos/ExifWriter.h"
#include "tools/wayfolio/PhotoPlaces.h"

#include <fmt/format.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wayfolio {

struct WriteChoice {
  bool gps = false, places = false, keywords = false, times = false;
  bool any() const { return gps || places || keywords || times; }
};

/// Parses "gps,places,keywords,times" (any subset); throws CommandError otherwise.
WriteChoice parseWrite(const std::string& text);

// "\r[3/10] name.jpg" on a terminal only.
class Progress {
 public:
  Progress();
  ~Progress();
  void show(const char* stage, size_t number, size_t count, const std::string& path);
  void clear();

 private:
  bool shown_;
};

// A photo attached in this run, with its point's position taken under the
// track's lock (the writer then needs neither the point nor the lock).
struct Attached {
  kvtrack::TrackPhotoPtr photo;
  double latitude = 0.0, longitude = 0.0, elevation = 0.0;
};

// Writes the attached photos on a thread of its own while matching goes
// on, in batches of what has queued up: matching waits for exiftool's reads
// and writing for its writes, and the persistent sessions serve both side
// by side.
// A dry run records the command lines in the caller's thread.
class PhotoWriting {
 public:
  PhotoWriting(const WriteChoice& choice, bool dryRun) : choice_(choice), writer_(dryRun) {
    if (!dryRun) worker_ = std::thread([this] { work(); });
  }
  ~PhotoWriting() { close(); }
  PhotoWriting(const PhotoWriting&) = delete;
  PhotoWriting& operator=(const PhotoWriting&) = delete;

  /// Photos without place names get them from the place cache.
  void fillPlacesFrom(std::shared_ptr<PhotoPlaces> places) { places_ = std::move(places); }

  void add(std::vector<Attached> photos) {
    if (places_) {
      for (const auto& attached : photos) {
        places_->request(*attached.photo, attached.latitude, attached.longitude);
      }
    }
    if (!worker_.joinable()) {
      write(photos);
      return;
    }
    {
      std::lock_guard lock(mutex_);
      for (auto& attached : photos) queue_.push_back(std::move(attached));
      queued_ += photos.size();
    }
    changed_.notify_all();
  }

  /// Waits for the last write, showing progress; then reports and returns
  /// the paths that could not be written.
  std::vector<std::string> finish(bool dryRun) {
    {
      Progress progress;
      std::unique_lock lock(mutex_);
      while (done_ < queued_) {
        progress.show("Writing", done_ + 1, queued_, current_);
        changed_.wait_for(lock, std::chrono::milliseconds(100));
      }
    }
    close();
    if (dryRun) {
      for (const auto& line : writer_.commandLines()) fmt::print("{}\n", line);
    } else {
      fmt::print("Wrote {} photos\n", writer_.written());
    }
    for (const auto& path : failed_) fmt::print("  not written: {}\n", path);
    if (places_) fmt::print("{}", places_->report());
    return failed_;
  }

 private:
  void write(const std::vector<Attached>& batch) {
    std::vector<kvtrack::PhotoAtPosition> photos;
    for (const Attached& attached : batch) {
      if (places_) places_->fill(*attached.photo, attached.latitude, attached.longitude);
      photos.push_back({attached.photo, attached.latitude, attached.longitude, attached.elevation});
    }
    std::vector<std::string> failed = writer_.updateExifForGPSLocation(
        photos, choice_.gps, choice_.places, choice_.keywords, choice_.times);
    failed_.insert(failed_.end(), failed.begin(), failed.end());
  }

  // Takes what has queued up, up to a batch: while one batch is written,
  // matching queues the next.
  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return closed_ || !queue_.empty(); });
      if (queue_.empty()) return;  // closed and drained
      std::vector<Attached> batch;
      while (!queue_.empty() && batch.size() < kBatch) {
        batch.push_back(std::move(queue_.front()));
        queue_.pop_front();
      }
      current_ = batch.back().photo->originalFilepath();
      lock.unlock();
      write(batch);
      lock.lock();
      done_ += batch.size();
      changed_.notify_all();
    }
  }

  void close() {
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
    }
    changed_.notify_all();
    if (worker_.joinable()) worker_.join();
  }

  static constexpr size_t kBatch = 64;  // photos handed to exiftool at once

  const WriteChoice choice_;
  std::shared_ptr<PhotoPlaces> places_;
  kvtrack::ExifWriter writer_;  // used by the worker only, until it is joined
  std::vector<std::string> failed_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Attached> queue_;
  size_t queued_ = 0, done_ = 0;
  std::string current_;
  bool closed_ = false;
  std::thread worker_;
};


}  // namespace wayfolio
