#include "kvtrack/support/NotificationCenter.h"

#include "kvtrack/support/Log.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

namespace kvtrack {

struct NotificationRegistry {
  struct Entry {
    uint64_t id;
    std::string name;
    NotificationCenter::Observer observer;
    std::atomic<bool> active{true};
  };

  std::mutex mutex;
  std::vector<std::shared_ptr<Entry>> entries;
  uint64_t nextId = 1;

  void remove(uint64_t id) {
    std::lock_guard lock(mutex);
    auto found = std::find_if(entries.begin(), entries.end(),
                              [&](const auto& entry) { return entry->id == id; });
    if (found == entries.end()) return;
    // A post that already copied the list checks this flag before calling.
    (*found)->active = false;
    entries.erase(found);
  }
};

ObserverToken::ObserverToken(std::weak_ptr<NotificationRegistry> registry, uint64_t id)
    : registry_(std::move(registry)), id_(id) {}

ObserverToken::~ObserverToken() { reset(); }

ObserverToken::ObserverToken(ObserverToken&& other) noexcept
    : registry_(std::move(other.registry_)), id_(std::exchange(other.id_, 0)) {}

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
  if (this != &other) {
    reset();
    registry_ = std::move(other.registry_);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

void ObserverToken::reset() {
  if (id_ == 0) return;
  // The center may be gone already; then there is nothing to remove.
  if (auto registry = registry_.lock()) registry->remove(id_);
  registry_.reset();
  id_ = 0;
}

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* instance = new NotificationCenter();  // lives until exit
  return *instance;
}

NotificationCenter::NotificationCenter() : registry_(std::make_shared<NotificationRegistry>()) {}

NotificationCenter::~NotificationCenter() = default;

ObserverToken NotificationCenter::addObserver(std::string name, Observer observer) {
  auto entry = std::make_shared<NotificationRegistry::Entry>();
  entry->name = std::move(name);
  entry->observer = std::move(observer);
  std::lock_guard lock(registry_->mutex);
  entry->id = registry_->nextId++;
  registry_->entries.push_back(entry);
  return ObserverToken(registry_, entry->id);
}

void NotificationCenter::removeObserver(ObserverToken& token) { token.reset(); }

void NotificationCenter::postNotification(std::string name, std::any object) {
  // Call outside the lock on a copy, so observers may change the list.
  std::vector<std::shared_ptr<NotificationRegistry::Entry>> matching;
  {
    std::lock_guard lock(registry_->mutex);
    for (const auto& entry : registry_->entries) {
      if (entry->name.empty() || entry->name == name) matching.push_back(entry);
    }
  }
  const Notification notification{std::move(name), std::move(object)};
  for (const auto& entry : matching) {
    if (!entry->active) continue;
    try {
      entry->observer(notification);
    } catch (const std::exception& error) {
      logf("notifications: an observer of {} failed: {}", notification.name, error.what());
    } catch (...) {
      logf("notifications: an observer of {} failed", notification.name);
    }
  }
}

}  // namespace kvtrack
