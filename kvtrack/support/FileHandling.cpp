#include "kvtrack/support/FileHandling.h"

#include "kvtrack/support/Log.h"

#include <pwd.h>
#include <unistd.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

// XDG base folders must be absolute; relative values are to be ignored.
std::string xdgFolder(const char* variable, const char* homeRelative) {
  std::string value = environment(variable);
  if (!value.empty() && value.front() == '/') return value;
  return (fs::path(FileHandling::homeFolder()) / homeRelative).string();
}

std::string defaultLibraryFolder() {
  std::string library = environment("WAYFOLIO_LIBRARY");
  if (!library.empty()) return library;
  return (fs::path(xdgFolder("XDG_DATA_HOME", ".local/share")) / "wayfolio").string();
}

std::string defaultLocationCache() {
  return (fs::path(xdgFolder("XDG_CACHE_HOME", ".cache")) / "wayfolio" / "locations").string();
}

bool makeFolder(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error) {
    logf("file handling: cannot create folder {}: {}", path, error.message());
    return false;
  }
  return true;
}

// mkdtemp gives mode 0700, so nobody else can read or plant files there.
std::string makeSandbox() {
  std::string base = environment("TMPDIR");
  if (base.empty()) base = "/tmp";
  for (const std::string& folder : {base, std::string("/tmp")}) {
    std::string pattern = (fs::path(folder) / "wayfolio-XXXXXX").string();
    if (mkdtemp(pattern.data())) return pattern;
    logf("file handling: cannot create a private folder in {}: {}", folder,
         std::strerror(errno));
  }
  return {};
}

bool isBlank(UChar32 c) { return c >= 0 && u_isUWhiteSpace(c); }

bool isForbidden(UChar32 c) {
  if (c < 0x20 || c == 0x7f || (c >= 0x80 && c <= 0x9f)) return true;
  return c < 0x80 && std::strchr("/\\:*?\"<>|", static_cast<int>(c)) != nullptr;
}

}  // namespace

FileHandling& FileHandling::singleton() {
  // Never destroyed, so late users during shutdown stay safe; only the
  // sandbox folder goes away at exit.
  static FileHandling* instance = [] {
    auto* created = new FileHandling();
    std::atexit([] { singleton().removeSandbox(); });
    return created;
  }();
  return *instance;
}

FileHandling::FileHandling() = default;

FileHandling::~FileHandling() { removeSandbox(); }

void FileHandling::removeSandbox() {
  std::lock_guard lock(mutex_);
  // A forked child that exits normally must not take the parent's folder.
  if (!sandboxOwned_ || sandboxCreatorPid_ != getpid()) return;
  std::error_code error;
  fs::remove_all(sandbox_, error);
  sandboxOwned_ = false;
  sandbox_.clear();
}

std::string FileHandling::userApplicationSupport() {
  std::lock_guard lock(mutex_);
  if (!applicationSupportReady_) {
    if (applicationSupport_.empty()) applicationSupport_ = defaultLibraryFolder();
    applicationSupportReady_ = makeFolder(applicationSupport_);
  }
  return applicationSupport_;
}

std::string FileHandling::userApplicationSupportIfAny() {
  std::lock_guard lock(mutex_);
  return applicationSupport_.empty() ? defaultLibraryFolder() : applicationSupport_;
}

void FileHandling::setUserApplicationSupport(std::string path) {
  std::lock_guard lock(mutex_);
  applicationSupport_ = std::move(path);
  applicationSupportReady_ = false;
}

std::string FileHandling::writableLocationCache() {
  std::lock_guard lock(mutex_);
  if (!locationCacheReady_) {
    if (locationCache_.empty()) locationCache_ = defaultLocationCache();
    locationCacheReady_ = makeFolder(locationCache_);
  }
  return locationCache_;
}

void FileHandling::setWritableLocationCache(std::string path) {
  std::lock_guard lock(mutex_);
  locationCache_ = std::move(path);
  locationCacheReady_ = false;
}

std::string FileHandling::sandbox() {
  std::lock_guard lock(mutex_);
  if (sandbox_.empty()) {
    sandbox_ = makeSandbox();
    sandboxOwned_ = !sandbox_.empty();
    sandboxCreatorPid_ = getpid();
  }
  return sandbox_;
}

void FileHandling::setSandbox(std::string path) {
  std::string previous;
  {
    std::lock_guard lock(mutex_);
    if (sandboxOwned_ && sandboxCreatorPid_ == getpid()) previous = sandbox_;
    sandbox_ = std::move(path);
    sandboxOwned_ = false;
  }
  if (!previous.empty()) {
    std::error_code error;
    fs::remove_all(previous, error);
  }
}

std::string FileHandling::deviceFolder() {
  std::lock_guard lock(mutex_);
  return deviceFolder_;
}

void FileHandling::setDeviceFolder(std::string path) {
  std::lock_guard lock(mutex_);
  deviceFolder_ = std::move(path);
}

std::vector<std::string> FileHandling::calloutPrefixes() {
  std::lock_guard lock(mutex_);
  return calloutPrefixes_;
}

void FileHandling::setCalloutPrefixes(std::vector<std::string> prefixes) {
  std::lock_guard lock(mutex_);
  calloutPrefixes_ = std::move(prefixes);
}

std::string FileHandling::homeFolder() {
  std::string home = environment("HOME");
  if (!home.empty()) return home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buffer(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir && *found->pw_dir) {
    return found->pw_dir;
  }
  return "/";
}

std::string FileHandling::filenameForShell(std::string_view path) {
  std::string word = "'";
  if (!path.empty() && path.front() == '-') word += "./";
  for (char c : path) {
    if (c == '\0') continue;  // cannot reach a program through argv anyway
    // Nothing is special inside single quotes except the quote itself, so
    // close the quote, add an escaped quote and open a new one.
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  word += '\'';
  return word;
}

std::string FileHandling::stringForShell(std::string_view value) {
  std::string escaped;
  escaped.reserve(value.size());
  for (char c : value) {
    if (c == '\0') continue;
    if (c == '\\' || c == '"' || c == '$' || c == '`') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string FileHandling::resolveAlias(std::string_view path) {
  const std::string original(path);
  fs::path current(original);
  // The same bound the kernel puts on nested links, so cycles end.
  for (int hops = 0; hops < 40; ++hops) {
    std::error_code error;
    fs::file_status status = fs::symlink_status(current, error);
    if (error || status.type() == fs::file_type::not_found) return original;
    if (status.type() != fs::file_type::symlink) return current.string();
    fs::path target = fs::read_symlink(current, error);
    if (error) return original;
    current = target.is_absolute() ? target : current.parent_path() / target;
  }
  return original;
}

std::string FileHandling::filenameWithoutSpecialCharacters(std::string_view name) {
  constexpr size_t kMaximumBytes = 200;
  const auto* bytes = reinterpret_cast<const uint8_t*>(name.data());
  const auto length = static_cast<int32_t>(std::min<size_t>(name.size(), INT32_MAX));

  std::vector<UChar32> characters;
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);  // c < 0 for an invalid sequence
    characters.push_back(c);
  }

  size_t first = 0;
  size_t last = characters.size();
  while (first < last && isBlank(characters[first])) ++first;
  while (last > first && isBlank(characters[last - 1])) --last;

  std::vector<UChar32> kept;
  size_t byteCount = 0;
  for (size_t i = first; i < last; ++i) {
    UChar32 c = characters[i];
    if (c < 0 || isForbidden(c)) c = '_';
    if (kept.empty() && c == '.') c = '_';
    size_t width = static_cast<size_t>(U8_LENGTH(c));
    if (byteCount + width > kMaximumBytes) break;
    byteCount += width;
    kept.push_back(c);
  }
  // Cutting may leave blanks at the end again.
  while (!kept.empty() && isBlank(kept.back())) kept.pop_back();
  if (kept.empty()) return "_";

  std::string result;
  for (UChar32 c : kept) {
    char buffer[U8_MAX_LENGTH];
    int32_t used = 0;
    U8_APPEND_UNSAFE(buffer, used, c);
    result.append(buffer, static_cast<size_t>(used));
  }
  return result;
}

std::string FileHandling::timestampForFilename() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
  return text;
}

std::string FileHandling::guid() {
  uuid_t value;
  uuid_generate_random(value);
  char text[37];
  uuid_unparse_upper(value, text);
  return text;
}

}  // namespace kvtrack
