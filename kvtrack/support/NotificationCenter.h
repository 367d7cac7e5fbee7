#pragma once
// NotificationCenter: named broadcasts inside the process ("UnloadingTrack"
// with the track as object). Observers run synchronously on the posting
// thread, in the order they were added. Observers may add or remove
// observers, or post, from inside a notification.

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kvtrack {

struct Notification {
  std::string name;
  /// Whatever the poster attached, e.g. a std::shared_ptr<Track>.
  std::any object;

  /// The object when it holds exactly a T, else nullptr.
  template <typename T>
  const T* objectAs() const {
    return std::any_cast<T>(&object);
  }
};

struct NotificationRegistry;

/// Keeps an observer registered while it lives; destroying it or reset()
/// removes the observer.
class [[nodiscard]] ObserverToken {
 public:
  ObserverToken() = default;
  ~ObserverToken();
  ObserverToken(ObserverToken&& other) noexcept;
  ObserverToken& operator=(ObserverToken&& other) noexcept;
  ObserverToken(const ObserverToken&) = delete;
  ObserverToken& operator=(const ObserverToken&) = delete;

  /// Removes the observer now. After it returns the observer is not called
  /// again, except by a post already running on another thread.
  void reset();
  bool registered() const { return id_ != 0; }

 private:
  friend class NotificationCenter;
  ObserverToken(std::weak_ptr<NotificationRegistry> registry, uint64_t id);

  std::weak_ptr<NotificationRegistry> registry_;
  uint64_t id_ = 0;
};

class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;

  static NotificationCenter& defaultCenter();

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// Observes notifications of that name; an empty name observes all.
  ObserverToken addObserver(std::string name, Observer observer);
  void removeObserver(ObserverToken& token);

  /// Calls the observers before returning. An observer that throws is
  /// logged and the others still run.
  void postNotification(std::string name, std::any object = {});

 private:
  std::shared_ptr<NotificationRegistry> registry_;
};

}  // namespace kvtrack
