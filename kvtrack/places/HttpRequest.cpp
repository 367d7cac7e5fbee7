#include "kvtrack/places/HttpRequest.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <memory>
#include <thread>

namespace kvtrack {

namespace {

// libcurl's global state is set up once and kept for the process.
void initialiseCurlOnce() {
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  (void)code;
}

struct EasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;

struct HeaderListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListDeleter>;

size_t appendBody(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

Status prepare(CURL* curl, const HttpRequest& request, curl_slist* headers, std::string* body,
               char* errors) {
  const auto timeout = static_cast<long>(request.timeout.count());
  CURLcode code = CURLE_OK;
  const auto set = [&code](CURLcode result) {
    if (code == CURLE_OK) code = result;
  };
  set(curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str()));
  set(curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errors));
  set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));  // worker threads: no SIGALRM
  set(curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeout));
  set(curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L));
  set(curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L));
  set(curl_easy_setopt(curl, CURLOPT_USERAGENT, "wayfolio/kvtrack"));
  set(curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, ""));  // whatever libcurl can inflate
  set(curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody));
  set(curl_easy_setopt(curl, CURLOPT_WRITEDATA, body));
  if (headers) set(curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers));
  if (!request.body.empty()) {
    set(curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data()));
    set(curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size())));
  }
  if (code != CURLE_OK) {
    return Status::failure(fmt::format("cannot prepare a request to {}: {}", request.url,
                                       curl_easy_strerror(code)));
  }
  return {};
}

}  // namespace

Result<HttpAnswer> sendHttpRequest(const HttpRequest& request) {
  initialiseCurlOnce();
  EasyHandle curl(curl_easy_init());
  if (!curl) return Status::failure("cannot start a request to " + request.url + ": out of memory");
  HeaderList headers;
  for (const auto& line : request.headers) {
    curl_slist* longer = curl_slist_append(headers.get(), line.c_str());
    if (!longer) return Status::failure("cannot start a request to " + request.url);
    (void)headers.release();  // now owned by `longer`
    headers.reset(longer);
  }
  HttpAnswer answer;
  char errors[CURL_ERROR_SIZE] = {};
  if (Status ready = prepare(curl.get(), request, headers.get(), &answer.body, errors); !ready) {
    return ready;
  }
  const CURLcode code = curl_easy_perform(curl.get());
  if (code != CURLE_OK) {
    const std::string reason = errors[0] ? errors : curl_easy_strerror(code);
    if (code == CURLE_OPERATION_TIMEDOUT) {
      return Status::failure(fmt::format("no answer from {} within {} s ({})", request.url,
                                         request.timeout.count() / 1000.0, reason));
    }
    return Status::failure(fmt::format("cannot reach {}: {}", request.url, reason));
  }
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  return answer;
}

std::string percentEscaped(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
        (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' || byte == '~') {
      escaped += c;
    } else {
      escaped += '%';
      escaped += kHex[byte >> 4];
      escaped += kHex[byte & 0x0F];
    }
  }
  return escaped;
}

void RequestSpacing::wait() {
  if (spacing_.count() <= 0) return;
  // Holding the lock while sleeping makes the waiters take turns.
  std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (next_ > now) std::this_thread::sleep_until(next_);
  next_ = std::max(now, next_) + spacing_;
}

}  // namespace kvtrack
