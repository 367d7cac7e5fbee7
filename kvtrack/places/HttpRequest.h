#pragma once
// Plain HTTP for the place services, through libcurl: one synchronous
// request on the caller's thread, bounded by a time-out; and the spacing
// that keeps requests to one service under its rate limit.

#include "kvtrack/support/Status.h"

#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

struct HttpRequest {
  std::string url;
  /// Sent as a POST when not empty; a GET otherwise.
  std::string body;
  /// Whole header lines ("Content-Type: text/xml; charset=utf-8").
  std::vector<std::string> headers;
  /// For the whole exchange, connecting included.
  std::chrono::milliseconds timeout{30000};
};

struct HttpAnswer {
  long status = 0;
  std::string body;
};

/// Sends the request and waits for the whole answer. Fails (with the URL
/// and libcurl's reason) when no answer arrived: no server, a refused
/// connection, a time-out. Any HTTP status counts as an answer.
Result<HttpAnswer> sendHttpRequest(const HttpRequest& request);

/// Percent-escapes every byte of the text except unreserved characters
/// (RFC 3986), so UTF-8 text travels as UTF-8 ("Zürich" → "Z%C3%BCrich").
std::string percentEscaped(std::string_view text);

/// Keeps requests to one service at least `spacing` apart, across all
/// threads that share it. Callers queue in wait() until their turn.
class RequestSpacing {
 public:
  explicit RequestSpacing(std::chrono::milliseconds spacing) : spacing_(spacing) {}
  RequestSpacing(const RequestSpacing&) = delete;
  RequestSpacing& operator=(const RequestSpacing&) = delete;

  void wait();

 private:
  const std::chrono::milliseconds spacing_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point next_{};
};

}  // namespace kvtrack
