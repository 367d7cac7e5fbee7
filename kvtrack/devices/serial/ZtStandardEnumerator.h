#pragma once
// Walks any collection by index through two of its operations: how many
// objects it holds, and the object at an index. The collection is asked
// again on every step, so an enumerator over a live collection sees objects
// that come and go while it walks (and never walks past the end).

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace kvtrack {

template <typename T>
class ZtStandardEnumerator {
 public:
  using CountFunction = std::function<std::size_t()>;
  using ObjectAtIndexFunction = std::function<T(std::size_t)>;

  ZtStandardEnumerator(CountFunction count, ObjectAtIndexFunction objectAtIndex)
      : count_(std::move(count)), objectAtIndex_(std::move(objectAtIndex)) {}

  /// Over a collection kept alive by the enumerator, through two of its member functions.
  template <typename Collection>
  static ZtStandardEnumerator initWithCollection(std::shared_ptr<Collection> collection,
                                                 std::size_t (Collection::*countSelector)(),
                                                 T (Collection::*objectAtIndexSelector)(std::size_t)) {
    return ZtStandardEnumerator([collection, countSelector] { return ((*collection).*countSelector)(); },
                                [collection, objectAtIndexSelector](std::size_t index) {
                                  return ((*collection).*objectAtIndexSelector)(index);
                                });
  }

  /// The next object, or a default T (nullptr for pointers) at the end.
  T nextObject() {
    if (index_ >= count_()) return T{};
    return objectAtIndex_(index_++);
  }

  /// The objects not walked yet; the enumerator is at the end afterwards.
  std::vector<T> allObjects() {
    std::vector<T> rest;
    while (index_ < count_()) rest.push_back(objectAtIndex_(index_++));
    return rest;
  }

 private:
  CountFunction count_;
  ObjectAtIndexFunction objectAtIndex_;
  std::size_t index_ = 0;
};

}  // namespace kvtrack
