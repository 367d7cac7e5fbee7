#include "tests/places/PlaceServiceEmulator.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace kvtrack::testing {

namespace {

std::string decoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    int value = text[i] == '+' ? ' ' : text[i];
    if (text[i] == '%' && i + 2 < text.size()) {
      std::from_chars(&text[i + 1], &text[i + 3], value, 16);
      i += 2;
    }
    out += static_cast<char>(value);
  }
  return out;
}

void parseTarget(const std::string& target, HttpExchange& exchange) {
  const size_t question = target.find('?');
  exchange.path = target.substr(0, question);
  std::istringstream query(question == std::string::npos ? "" : target.substr(question + 1));
  for (std::string item; std::getline(query, item, '&');) {
    const size_t eq = item.find('=');
    exchange.query[decoded(item.substr(0, eq))] = eq == std::string::npos ? "" : decoded(item.substr(eq + 1));
  }
}

// Reads a request head and its body (by Content-Length); false on a
// broken or closed connection.
bool readRequest(int connection, HttpExchange& exchange) {
  std::string data;
  const auto receive = [&] {
    char buffer[4096];
    const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
    if (got > 0) data.append(buffer, static_cast<size_t>(got));
    return got > 0;
  };
  size_t headEnd;
  while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
    if (!receive()) return false;
  }
  std::istringstream head(data.substr(0, headEnd));
  std::string target, line;
  head >> exchange.method >> target;
  parseTarget(target, exchange);
  while (std::getline(head, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const size_t value = line.find_first_not_of(' ', colon + 1);
    exchange.headers[name] = line.substr(value, line.find_last_not_of('\r') + 1 - value);
  }
  const auto length = exchange.headers.find("content-length");
  const size_t end = headEnd + 4 + (length == exchange.headers.end() ? 0 : std::stoul(length->second));
  while (data.size() < end) {
    if (!receive()) return false;
  }
  exchange.body = data.substr(headEnd + 4, end - headEnd - 4);
  return true;
}

sockaddr_in loopback() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket bound to a free loopback port, and that port.
std::pair<UniqueFd, int> boundSocket() {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = loopback();
  socklen_t size = sizeof address;
  if (!socket || ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("cannot bind a socket on 127.0.0.1");
  }
  return {std::move(socket), ntohs(address.sin_port)};
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : handler_(std::move(handler)) {
  std::tie(listener_, port_) = boundSocket();
  if (::listen(listener_.get(), 64) != 0) throw std::runtime_error("cannot listen on 127.0.0.1");
  acceptor_ = std::thread([this] { acceptLoop(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  lock.unlock();
  stopped_.notify_all();
  acceptor_.join();
  for (auto& connection : connections_) connection.join();
}

std::vector<HttpExchange> LoopbackHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

size_t LoopbackHttpServer::requestCount(const std::string& path) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(
      std::count_if(requests_.begin(), requests_.end(), [&](const auto& r) { return path.empty() || r.path == path; }));
}

void LoopbackHttpServer::acceptLoop() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    lock.unlock();
    pollfd waiting{listener_.get(), POLLIN, 0};
    UniqueFd connection(::poll(&waiting, 1, 20) > 0 ? ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
    lock.lock();
    if (connection) connections_.emplace_back(&LoopbackHttpServer::serve, this, std::move(connection));
  }
}

void LoopbackHttpServer::serve(UniqueFd connection) {
  timeval patience{5, 0};
  ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  HttpExchange exchange;
  if (!readRequest(connection.get(), exchange)) return;
  CannedAnswer answer;
  try {
    answer = handler_(exchange);
  } catch (const std::exception& error) {
    answer = {500, error.what()};
  }
  {
    std::unique_lock lock(mutex_);
    requests_.push_back(exchange);
    stopped_.wait_for(lock, answer.delay, [this] { return stopping_; });
  }
  const std::string reply = fmt::format(
      "HTTP/1.1 {} Status\r\nContent-Type: {}\r\nContent-Length: {}\r\nConnection: close\r\n\r\n{}",
      answer.status, answer.contentType, answer.body.size(), answer.body);
  ::send(connection.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
}

int unusedLoopbackPort() { return boundSocket().second; }  // bound, never listening, then closed

// --- the services' answers ----------------------------------------------------

namespace {

struct Names {
  std::string place, city, state, country, code;
};

// A recorded region, the open sea (no names south of 60° S), or names
// made from the position, so that every answer tells where it was asked.
std::optional<Names> namesAt(double lat, double lng) {
  struct Region {
    double south, north, west, east;
    Names names;  // the nearest populated place, then of the nearest postal code
  };
  static const Region kRegions[] = {  // where the bundled samples and the tests' positions lie
      {47.30, 47.45, 8.45, 8.65, {"Zürich", "Zürich", "Kanton Zürich", "Switzerland", "CH"}},
      {46.60, 46.72, 7.95, 8.15, {"Grindelwald", "Grindelwald", "Bern", "Switzerland", "CH"}},
      {64.00, 64.20, -22.10, -21.70, {"Reykjavík", "Reykjavík", "Höfuðborgarsvæði", "Iceland", "IS"}}};
  if (lat < -60.0) return std::nullopt;
  for (const Region& r : kRegions) {
    if (lat >= r.south && lat <= r.north && lng >= r.west && lng <= r.east) return r.names;
  }
  const std::string at = fmt::format("{:.6f} {:.6f}", lat, lng);
  return Names{"Place " + at, "City " + at, "State " + at, "Elsewhere", "XE"};
}

constexpr const char* kGeoNamesHead = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n<geonames>\n";

std::string findNearbyPostalCodes(double lat, double lng) {
  const auto names = namesAt(lat, lng);
  if (!names) return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<geonames/>\n";
  return fmt::format(
      "{}<code>\n<postalcode>3818</postalcode>\n<name>{}</name>\n<countryCode>{}</countryCode>\n<lat>{:.5f}</lat>\n"
      "<lng>{:.5f}</lng>\n<adminCode1>BE</adminCode1>\n<adminName1>{}</adminName1>\n<distance>0.8</distance>\n"
      "</code>\n</geonames>\n",
      kGeoNamesHead, names->city, names->code, lat, lng, names->state);
}

std::string search(const std::string& q) {
  if (q != "Zürich") return "<?xml version=\"1.0\"?>\n<geonames style=\"MEDIUM\">\n<totalResultsCount>0</totalResultsCount>\n</geonames>\n";
  return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n<geonames style=\"MEDIUM\">\n"
         "<totalResultsCount>2</totalResultsCount>\n<geoname>\n<toponymName>Zürich</toponymName>\n<name>Zürich</name>\n"
         "<lat>47.36667</lat>\n<lng>8.55</lng>\n<geonameId>2657896</geonameId>\n<countryCode>CH</countryCode>\n"
         "<countryName>Switzerland</countryName>\n<fcl>P</fcl>\n<fcode>PPLA</fcode>\n</geoname>\n"
         "<geoname>\n<toponymName>Zürichsee</toponymName>\n<name>Lake Zurich</name>\n<lat>47.25</lat>\n"
         "<lng>8.66667</lng>\n<geonameId>2657895</geonameId>\n<countryCode>CH</countryCode>\n"
         "<countryName>Switzerland</countryName>\n<fcl>H</fcl>\n<fcode>LK</fcode>\n</geoname>\n"
         "<geoname>\n<toponymName>Zürich (Kreis)</toponymName>\n<name>Bezirk Zürich</name>\n"
         "<geonameId>6458798</geonameId>\n<countryName>Switzerland</countryName>\n<fcl>A</fcl>\n</geoname>\n"
         "</geonames>\n";
}

std::string terraService(const std::string& request) {
  const auto between = [&request](const std::string& tag) {
    const size_t from = request.find("<" + tag + ">") + tag.size() + 2;
    return std::stod(request.substr(from, request.find("</" + tag + ">") - from));
  };
  const auto names = namesAt(between("Lat"), between("Lon"));
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"><soap:Body>"
      "<ConvertLonLatPtToNearestPlaceResponse xmlns=\"http://terraservice.net/terraserver/\">"
      "<ConvertLonLatPtToNearestPlaceResult>{}</ConvertLonLatPtToNearestPlaceResult>"
      "</ConvertLonLatPtToNearestPlaceResponse></soap:Body></soap:Envelope>",
      names ? fmt::format("{}, {}, {}", names->city, names->state, names->country) : "");
}

std::string ownServerNearest(double lat, double lng) {
  const auto names = namesAt(lat, lng);
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<results>\n  <numFound>{}</numFound>\n  <QTime>3</QTime>\n{}</results>\n",
      names ? 1 : 0,
      names ? fmt::format("  <result>\n    <distance>812.4</distance>\n    <name>{}</name>\n    <featureId>2657896"
                          "</featureId>\n    <placeType>City</placeType>\n  </result>\n", names->city)
            : "");
}

std::string ownServerFulltext(double lat, double lng) {
  const auto names = namesAt(lat, lng).value_or(Names{});
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>\n<lst name=\"responseHeader\"><int name=\"status\">0</int>"
      "<int name=\"QTime\">2</int></lst>\n<result name=\"response\" numFound=\"1\" start=\"0\">\n<doc>\n"
      "<str name=\"adm1_name\">{}</str>\n<str name=\"country_code\">{}</str>\n<str name=\"country_name\">{}</str>\n"
      "<long name=\"feature_id\">2657896</long>\n<str name=\"name\">{}</str>\n</doc>\n</result>\n</response>\n",
      names.state, names.code, names.country, names.city);
}

}  // namespace

std::string PlaceServiceEmulator::findNearbyPlaceName(double lat, double lng) {
  const auto names = namesAt(lat, lng);
  if (!names) return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<geonames/>\n";
  return fmt::format(
      "{0}<geoname>\n<toponymName>{1}</toponymName>\n<name>{1}</name>\n<lat>{2:.5f}</lat>\n<lng>{3:.5f}</lng>\n"
      "<geonameId>2660971</geonameId>\n<countryCode>{4}</countryCode>\n<countryName>{5}</countryName>\n<fcl>P</fcl>\n"
      "<fcode>PPL</fcode>\n<fclName>city, village,...</fclName>\n<adminName1>{6}</adminName1>\n"
      "<distance>1.2</distance>\n</geoname>\n</geonames>\n",
      kGeoNamesHead, names->place, lat, lng, names->code, names->country, names->state);
}

PlaceServiceEmulator::PlaceServiceEmulator() : server_([this](const HttpExchange& e) { return answer(e); }) {}

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
  settings.geoNamesServer = settings.geolocationServer = settings.terraServiceServer = server_.url();
  settings.geoNamesLocale = "en";
  settings.geoNamesRequestSpacing = settings.geolocationServerRequestSpacing = settings.terraServiceRequestSpacing =
      std::chrono::milliseconds(0);
  settings.lookupTimeout = settings.searchTimeout = settings.terraServiceTimeout = std::chrono::milliseconds(2000);
  return settings;
}

CannedAnswer PlaceServiceEmulator::answer(const HttpExchange& exchange) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = overrides_.find(exchange.path); it != overrides_.end()) return it->second;
  }
  const auto number = [&exchange](const char* key) {
    return exchange.query.count(key) ? std::stod(exchange.query.at(key)) : 0.0;
  };
  const double lat = number("lat"), lng = number("lng");
  const std::string& path = exchange.path;
  if (path == "/findNearbyPlaceName") return {200, findNearbyPlaceName(lat, lng)};
  if (path == "/findNearbyPostalCodes") return {200, findNearbyPostalCodes(lat, lng)};
  if (path == "/search") return {200, search(exchange.query.at("q"))};
  if (path == "/geoloc/findnearbylocation") return {200, ownServerNearest(lat, lng)};
  if (path == "/fulltext/fulltextsearch") return {200, ownServerFulltext(lat, lng)};
  if (path == "/TerraService2.asmx" && exchange.method == "POST") return {200, terraService(exchange.body)};
  return {404, "<html><body>Not Found</body></html>"};
}

}  // namespace kvtrack::testing
