#include "tests/places/PlaceServiceEmulator.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <charconv>
#include <stdexcept>

namespace kvtrack::testing {

namespace {

std::string decoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size()) {
      int value = 0;
      std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16);
      out += static_cast<char>(value);
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::map<std::string, std::string> parseQuery(std::string_view query) {
  std::map<std::string, std::string> items;
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    const size_t eq = item.find('=');
    items[decoded(item.substr(0, eq))] =
        eq == std::string_view::npos ? std::string() : decoded(item.substr(eq + 1));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  return items;
}

// Reads a request head and its body (by Content-Length); false on a
// broken or closed connection.
bool readRequest(int connection, HttpExchange& exchange) {
  std::string data;
  char buffer[4096];
  size_t headEnd = std::string::npos;
  while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
    const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
    if (got <= 0) return false;
    data.append(buffer, static_cast<size_t>(got));
  }
  const std::string head = data.substr(0, headEnd);
  std::string body = data.substr(headEnd + 4);
  size_t lineEnd = head.find("\r\n");
  const std::string requestLine = head.substr(0, lineEnd);
  const size_t space1 = requestLine.find(' ');
  const size_t space2 = requestLine.find(' ', space1 + 1);
  exchange.method = requestLine.substr(0, space1);
  const std::string target = requestLine.substr(space1 + 1, space2 - space1 - 1);
  const size_t question = target.find('?');
  exchange.path = target.substr(0, question);
  if (question != std::string::npos) exchange.query = parseQuery(target.substr(question + 1));
  while (lineEnd != std::string::npos && lineEnd < head.size()) {
    const size_t next = head.find("\r\n", lineEnd + 2);
    const std::string line = head.substr(lineEnd + 2, next - lineEnd - 2);
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = line.substr(0, colon);
      for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      exchange.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
    }
    lineEnd = next;
  }
  size_t length = 0;
  if (auto it = exchange.headers.find("content-length"); it != exchange.headers.end()) {
    length = std::stoul(it->second);
  }
  while (body.size() < length) {
    const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
    if (got <= 0) return false;
    body.append(buffer, static_cast<size_t>(got));
  }
  exchange.body = std::move(body);
  return true;
}

const char* reasonPhrase(int status) {
  switch (status) {
    case 200: return "OK";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Status";
  }
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : handler_(std::move(handler)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t size = sizeof address;
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  acceptor_.join();
  for (auto& connection : connections_) connection.join();
  ::close(listener_);
}

std::string LoopbackHttpServer::url() const { return fmt::format("http://127.0.0.1:{}", port_); }

std::vector<HttpExchange> LoopbackHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

size_t LoopbackHttpServer::requestCount(const std::string& path) const {
  std::lock_guard lock(mutex_);
  if (path.empty()) return requests_.size();
  size_t count = 0;
  for (const auto& request : requests_) count += request.path == path;
  return count;
}

void LoopbackHttpServer::clearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

void LoopbackHttpServer::acceptLoop() {
  while (!stopping_) {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 20) <= 0) continue;
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    std::lock_guard lock(mutex_);
    connections_.emplace_back([this, connection] { serve(connection); });
  }
}

void LoopbackHttpServer::sleepUnlessStopping(std::chrono::milliseconds delay) {
  std::unique_lock lock(mutex_);
  stopped_.wait_for(lock, delay, [this] { return stopping_.load(); });
}

void LoopbackHttpServer::serve(int connection) {
  timeval patience{5, 0};
  ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  HttpExchange exchange;
  if (readRequest(connection, exchange)) {
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(exchange);
    }
    CannedAnswer answer;
    try {
      answer = handler_(exchange);
    } catch (const std::exception& error) {
      answer = {500, error.what(), {}, "text/plain"};
    }
    if (answer.delay.count() > 0) sleepUnlessStopping(answer.delay);
    const std::string reply =
        fmt::format("HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\n"
                    "Connection: close\r\n\r\n{}",
                    answer.status, reasonPhrase(answer.status), answer.contentType,
                    answer.body.size(), answer.body);
    ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
  }
  ::close(connection);
}

int unusedLoopbackPort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(probe, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(probe);  // bound but never listening: connections are refused
  return ntohs(address.sin_port);
}

// --- the services' answers ----------------------------------------------------

namespace {

struct Region {
  double south, north, west, east;
  const char* place;  // nearest populated place
  const char* city;   // of the nearest postal code
  const char* state;
  const char* country;
  const char* code;
};

// Where the bundled samples and the tests' positions lie.
constexpr Region kRegions[] = {
    {47.30, 47.45, 8.45, 8.65, "Zürich", "Zürich", "Kanton Zürich", "Switzerland", "CH"},
    {46.60, 46.72, 7.95, 8.15, "Grindelwald", "Grindelwald", "Bern", "Switzerland", "CH"},
    {64.00, 64.20, -22.10, -21.70, "Reykjavík", "Reykjavík", "Höfuðborgarsvæði", "Iceland", "IS"},
};

struct Names {
  std::string place, city, state, country, code;
};

// A recorded region, the open sea (no names south of 60° S), or names
// made from the position, so that every answer tells where it was asked.
std::optional<Names> namesAt(double lat, double lng) {
  if (lat < -60.0) return std::nullopt;
  for (const Region& r : kRegions) {
    if (lat >= r.south && lat <= r.north && lng >= r.west && lng <= r.east) {
      return Names{r.place, r.city, r.state, r.country, r.code};
    }
  }
  const std::string at = fmt::format("{:.6f} {:.6f}", lat, lng);
  return Names{"Place " + at, "City " + at, "State " + at, "Elsewhere", "XE"};
}

double number(const HttpExchange& exchange, const char* key) {
  const auto it = exchange.query.find(key);
  return it == exchange.query.end() ? 0.0 : std::stod(it->second);
}

std::string geonamesSearch(const std::string& q) {
  if (q == "Zürich") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n"
           "<geonames style=\"MEDIUM\">\n<totalResultsCount>2</totalResultsCount>\n"
           "<geoname>\n<toponymName>Zürich</toponymName>\n<name>Zürich</name>\n"
           "<lat>47.36667</lat>\n<lng>8.55</lng>\n<geonameId>2657896</geonameId>\n"
           "<countryCode>CH</countryCode>\n<countryName>Switzerland</countryName>\n"
           "<fcl>P</fcl>\n<fcode>PPLA</fcode>\n</geoname>\n"
           "<geoname>\n<toponymName>Zürichsee</toponymName>\n<name>Lake Zurich</name>\n"
           "<lat>47.25</lat>\n<lng>8.66667</lng>\n<geonameId>2657895</geonameId>\n"
           "<countryCode>CH</countryCode>\n<countryName>Switzerland</countryName>\n"
           "<fcl>H</fcl>\n<fcode>LK</fcode>\n</geoname>\n"
           "<geoname>\n<toponymName>Zürich (Kreis)</toponymName>\n<name>Bezirk Zürich</name>\n"
           "<geonameId>6458798</geonameId>\n<countryName>Switzerland</countryName>\n"
           "<fcl>A</fcl>\n</geoname>\n</geonames>\n";
  }
  return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n"
         "<geonames style=\"MEDIUM\">\n<totalResultsCount>0</totalResultsCount>\n</geonames>\n";
}

std::string terraAnswer(const std::string& request) {
  const auto between = [&request](const std::string& tag) {
    const size_t from = request.find("<" + tag + ">") + tag.size() + 2;
    return std::stod(request.substr(from, request.find("</" + tag + ">") - from));
  };
  const auto names = namesAt(between("Lat"), between("Lon"));
  const std::string result =
      names ? fmt::format("{}, {}, {}", names->city, names->state, names->country) : "";
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
         "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
         "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
         "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"><soap:Body>"
         "<ConvertLonLatPtToNearestPlaceResponse xmlns=\"http://terraservice.net/terraserver/\">"
         "<ConvertLonLatPtToNearestPlaceResult>" +
         result +
         "</ConvertLonLatPtToNearestPlaceResult></ConvertLonLatPtToNearestPlaceResponse>"
         "</soap:Body></soap:Envelope>";
}

std::string ownServerNearest(double lat, double lng) {
  const auto names = namesAt(lat, lng);
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<results>\n  <numFound>{}</numFound>\n"
      "  <QTime>3</QTime>\n{}</results>\n",
      names ? 1 : 0,
      names ? fmt::format("  <result>\n    <distance>812.4</distance>\n    <name>{}</name>\n"
                          "    <featureId>{}</featureId>\n    <placeType>City</placeType>\n"
                          "  </result>\n",
                          names->city, 2657896)
            : "");
}

std::string ownServerFulltext(double lat, double lng) {
  const auto names = namesAt(lat, lng).value_or(Names{});
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>\n<lst name=\"responseHeader\">"
      "<int name=\"status\">0</int><int name=\"QTime\">2</int></lst>\n"
      "<result name=\"response\" numFound=\"1\" start=\"0\">\n<doc>\n"
      "<str name=\"adm1_name\">{}</str>\n<str name=\"country_code\">{}</str>\n"
      "<str name=\"country_name\">{}</str>\n<long name=\"feature_id\">2657896</long>\n"
      "<str name=\"name\">{}</str>\n</doc>\n</result>\n</response>\n",
      names.state, names.code, names.country, names.city);
}

}  // namespace

std::string PlaceServiceEmulator::findNearbyPlaceName(double lat, double lng) {
  const auto names = namesAt(lat, lng);
  if (!names) return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<geonames/>\n";
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n<geonames>\n<geoname>\n"
      "<toponymName>{0}</toponymName>\n<name>{0}</name>\n<lat>{1:.5f}</lat>\n<lng>{2:.5f}</lng>\n"
      "<geonameId>2660971</geonameId>\n<countryCode>{3}</countryCode>\n"
      "<countryName>{4}</countryName>\n<fcl>P</fcl>\n<fcode>PPL</fcode>\n"
      "<fclName>city, village,...</fclName>\n<adminName1>{5}</adminName1>\n"
      "<distance>1.2</distance>\n</geoname>\n</geonames>\n",
      names->place, lat, lng, names->code, names->country, names->state);
}

std::string PlaceServiceEmulator::findNearbyPostalCodes(double lat, double lng) {
  const auto names = namesAt(lat, lng);
  if (!names) return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<geonames/>\n";
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n<geonames>\n<code>\n"
      "<postalcode>3818</postalcode>\n<name>{0}</name>\n<countryCode>{1}</countryCode>\n"
      "<lat>{2:.5f}</lat>\n<lng>{3:.5f}</lng>\n<adminCode1>BE</adminCode1>\n"
      "<adminName1>{4}</adminName1>\n<distance>0.8</distance>\n</code>\n</geonames>\n",
      names->city, names->code, lat, lng, names->state);
}

PlaceServiceEmulator::PlaceServiceEmulator()
    : server_([this](const HttpExchange& exchange) { return answer(exchange); }) {}

void PlaceServiceEmulator::setAnswer(const std::string& path, CannedAnswer answer) {
  std::lock_guard lock(mutex_);
  overrides_[path] = std::move(answer);
}

void PlaceServiceEmulator::clearAnswers() {
  std::lock_guard lock(mutex_);
  overrides_.clear();
}

PlacesSettings PlaceServiceEmulator::settings(const std::string& userName) const {
  PlacesSettings settings;
  settings.geoNamesUserName = userName;
  settings.geoNamesServer = server_.url();
  settings.geolocationServer = server_.url();
  settings.terraServiceServer = server_.url();
  settings.geoNamesLocale = "en";
  settings.geoNamesRequestSpacing = settings.geolocationServerRequestSpacing =
      settings.terraServiceRequestSpacing = std::chrono::milliseconds(0);
  settings.lookupTimeout = settings.searchTimeout = settings.terraServiceTimeout =
      std::chrono::milliseconds(2000);
  return settings;
}

CannedAnswer PlaceServiceEmulator::answer(const HttpExchange& exchange) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = overrides_.find(exchange.path); it != overrides_.end()) return it->second;
  }
  const double lat = number(exchange, "lat"), lng = number(exchange, "lng");
  if (exchange.path == "/findNearbyPlaceName") return {200, findNearbyPlaceName(lat, lng)};
  if (exchange.path == "/findNearbyPostalCodes") return {200, findNearbyPostalCodes(lat, lng)};
  if (exchange.path == "/search") return {200, geonamesSearch(exchange.query.at("q"))};
  if (exchange.path == "/geoloc/findnearbylocation") return {200, ownServerNearest(lat, lng)};
  if (exchange.path == "/fulltext/fulltextsearch") return {200, ownServerFulltext(lat, lng)};
  if (exchange.path == "/TerraService2.asmx" && exchange.method == "POST") {
    return {200, terraAnswer(exchange.body)};
  }
  return {404, "<html><body>Not Found</body></html>", {}, "text/html"};
}

}  // namespace kvtrack::testing
