#pragma once
// Base of everything in the library tree that has a display name.

#include <memory>
#include <string>

namespace kvtrack {

class NamedObject {
 public:
  NamedObject() = default;
  explicit NamedObject(std::string name) : name_(std::move(name)) {}
  virtual ~NamedObject() = default;

  static std::shared_ptr<NamedObject> namedObject() { return std::make_shared<NamedObject>(); }
  static std::shared_ptr<NamedObject> namedObjectWithName(std::string name) {
    return std::make_shared<NamedObject>(std::move(name));
  }

  const std::string& name() const { return name_; }
  /// Virtual so that tracks can mark themselves dirty on a rename.
  virtual void setName(std::string name) { name_ = std::move(name); }

 private:
  std::string name_;
};

}  // namespace kvtrack
