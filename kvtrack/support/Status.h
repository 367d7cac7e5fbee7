#pragma once
// What a fallible operation tells its caller: success, or the reason it
// failed in words a person can read ("cannot write /lib/Track00000003.gpx:
// No space left on device"). Log lines are still written where the
// operation always wrote them; callers learn the outcome from the result,
// never from the log.

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace kvtrack {

class [[nodiscard]] Status {
 public:
  /// Success.
  Status() = default;
  static Status failure(std::string reason) { return Status(std::move(reason)); }

  bool ok() const { return !reason_; }
  explicit operator bool() const { return ok(); }
  /// Empty on success.
  const std::string& reason() const {
    static const std::string kNone;
    return reason_ ? *reason_ : kNone;
  }
  /// The same failure with context in front: "saving the library: <reason>".
  Status prefixed(const std::string& context) const {
    return ok() ? *this : failure(context + ": " + *reason_);
  }

 private:
  explicit Status(std::string reason) : reason_(std::move(reason)) {}
  std::optional<std::string> reason_;
};

/// A value, or the reason there is none.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::move(value)) {}  // NOLINT: implicit on purpose
  /// A failed status; a successful one is a programming error and becomes
  /// the failure "no value".
  Result(Status failure)  // NOLINT: implicit on purpose
      : content_(failure.ok() ? Status::failure("no value") : std::move(failure)) {}

  bool ok() const { return std::holds_alternative<T>(content_); }
  explicit operator bool() const { return ok(); }
  T& value() { return std::get<T>(content_); }
  const T& value() const { return std::get<T>(content_); }
  T& operator*() { return value(); }
  const T& operator*() const { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  /// Empty on success.
  const std::string& reason() const {
    static const std::string kNone;
    return ok() ? kNone : std::get<Status>(content_).reason();
  }
  Status status() const { return ok() ? Status() : std::get<Status>(content_); }

 private:
  std::variant<T, Status> content_;
};

}  // namespace kvtrack
