#pragma once
// A loopback HTTP server for the place services' tests: it listens on
// 127.0.0.1 only, answers each request on a thread of its own and stops
// when it goes out of scope. PlaceServiceEmulator answers as GeoNames, our
// own search server and TerraService do, from answers recorded in each
// service's format, for a few known regions and a made-up name anywhere
// else; any path can be made to answer otherwise (status, body, delay).

#include "kvtrack/places/PlacesSettings.h"
#include "kvtrack/support/UniqueFd.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack::testing {

struct HttpExchange {
  std::string method, path, body;              // the path without the query
  std::map<std::string, std::string> query;    // decoded
  std::map<std::string, std::string> headers;  // names in lower case
};

struct CannedAnswer {
  int status = 200;
  std::string body;
  std::chrono::milliseconds delay{0};
  std::string contentType = "text/xml; charset=utf-8";
};

class LoopbackHttpServer {
 public:
  using Handler = std::function<CannedAnswer(const HttpExchange&)>;
  explicit LoopbackHttpServer(Handler handler);
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  /// "http://127.0.0.1:PORT"
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  /// Every request received so far, in arrival order.
  std::vector<HttpExchange> requests() const;
  size_t requestCount(const std::string& path = {}) const;

 private:
  void acceptLoop();
  void serve(UniqueFd connection);

  Handler handler_;
  UniqueFd listener_;
  int port_ = 0;
  bool stopping_ = false;
  mutable std::mutex mutex_;
  std::condition_variable stopped_;
  std::vector<HttpExchange> requests_;
  std::vector<std::thread> connections_;
  std::thread acceptor_;
};

class PlaceServiceEmulator {
 public:
  PlaceServiceEmulator();
  /// Answers every request for that path so from now on.
  void setAnswer(const std::string& path, CannedAnswer answer);
  void clearAnswers();
  /// Settings that send every service here, with the given account, no
  /// spacing and short time-outs.
  PlacesSettings settings(const std::string& userName = "tester") const;
  LoopbackHttpServer& server() { return server_; }
  /// Reverse lookups asked of GeoNames so far (one per findNearbyPlaceName).
  size_t geoNamesLookups() const { return server_.requestCount("/findNearbyPlaceName"); }

  /// The recorded answer, for tests that want to hold it back.
  static std::string findNearbyPlaceName(double lat, double lng);

 private:
  CannedAnswer answer(const HttpExchange& exchange);

  mutable std::mutex mutex_;
  std::map<std::string, CannedAnswer> overrides_;
  LoopbackHttpServer server_;
};

/// A free loopback port with nobody listening on it.
int unusedLoopbackPort();

}  // namespace kvtrack::testing
