#include "kvtrack/support/SettingsFile.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include <fcntl.h>
#include <unistd.h>

#include <toml++/toml.h>
#include <unicode/utf8.h>

#include <cerrno>
#include <cstdint>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

namespace kvtrack {

namespace fs = std::filesystem;

struct SettingsFile::State {
  mutable std::mutex mutex;
  std::string path;
  toml::table root;

  const toml::node* find(std::string_view table, std::string_view key) const {
    const toml::table* values = root.get_as<toml::table>(table);
    return values ? values->get(key) : nullptr;
  }

  toml::table& tableForWriting(std::string_view table) {
    if (toml::table* existing = root.get_as<toml::table>(table)) return *existing;
    // Whatever else sat under that name gives way to a table.
    root.insert_or_assign(table, toml::table{});
    return *root.get_as<toml::table>(table);
  }
};

namespace {

// The text of the file; nullopt with a reason when it exists but is unreadable.
std::optional<std::string> readText(const std::string& path, std::string& reason) {
  std::error_code error;
  fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) return std::string();
  if (error) {
    reason = error.message();
    return std::nullopt;
  }
  if (status.type() == fs::file_type::directory) {
    reason = "it is a folder";
    return std::nullopt;
  }
  std::ifstream stream(path, std::ios::binary);
  std::string text;
  if (stream) text.assign(std::istreambuf_iterator<char>(stream), {});
  if (!stream.is_open() || stream.bad()) {
    reason = std::strerror(errno);
    return std::nullopt;
  }
  return text;
}

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool isValidUtf8(std::string_view text) {
  if (text.size() > INT32_MAX) return false;
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

}  // namespace

SettingsFile& SettingsFile::shared() {
  static SettingsFile* instance = [] {
    auto* created = new SettingsFile();  // never destroyed: used until exit
    created->load(defaultPath());
    return created;
  }();
  return *instance;
}

std::string SettingsFile::defaultPath() {
  const char* explicitPath = std::getenv("WAYFOLIO_SETTINGS");
  if (explicitPath && *explicitPath) return explicitPath;
  const char* configHome = std::getenv("XDG_CONFIG_HOME");
  fs::path base = (configHome && *configHome == '/')
                      ? fs::path(configHome)
                      : fs::path(FileHandling::homeFolder()) / ".config";
  return (base / "wayfolio" / "settings.toml").string();
}

SettingsFile::SettingsFile() : state_(std::make_unique<State>()) {}

SettingsFile::~SettingsFile() = default;

bool SettingsFile::load(const std::string& path) {
  toml::table loaded;
  bool ok = true;
  std::string reason;
  if (std::optional<std::string> text = readText(path, reason)) {
    try {
      loaded = toml::parse(*text, path);
    } catch (const toml::parse_error& error) {
      const toml::source_position where = error.source().begin;
      reason = fmt::format("{} (line {}, column {})", error.description(), where.line,
                           where.column);
      ok = false;
    } catch (const std::exception& error) {
      reason = error.what();
      ok = false;
    }
  } else {
    ok = false;
  }
  if (!ok) {
    logf("settings: cannot read {}: {}", path, reason);
    loaded = toml::table{};
  }
  std::lock_guard lock(state_->mutex);
  state_->path = path;
  state_->root = std::move(loaded);
  return ok;
}

bool SettingsFile::save() {
  std::string path;
  std::string text;
  {
    std::lock_guard lock(state_->mutex);
    path = state_->path;
    std::ostringstream stream;
    stream << state_->root << '\n';
    text = stream.str();
  }
  if (path.empty()) {
    logLine("settings: cannot save: no settings file chosen");
    return false;
  }
  // Never replace a good file with one we could not read back.
  try {
    (void)toml::parse(text, path);
  } catch (const std::exception& error) {
    logf("settings: cannot save {}: the values do not form valid TOML: {}", path, error.what());
    return false;
  }

  std::error_code folderError;
  fs::path folder = fs::path(path).parent_path();
  if (!folder.empty()) fs::create_directories(folder, folderError);
  std::string temporary = path + ".XXXXXX";
  int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) {
    logf("settings: cannot save {}: {}", path, std::strerror(errno));
    return false;
  }
  bool ok = writeAll(descriptor, text) && ::fsync(descriptor) == 0;
  int savedErrno = errno;
  if (::close(descriptor) != 0 && ok) {
    ok = false;
    savedErrno = errno;
  }
  if (ok && std::rename(temporary.c_str(), path.c_str()) != 0) {
    ok = false;
    savedErrno = errno;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    logf("settings: cannot save {}: {}", path, std::strerror(savedErrno));
  }
  return ok;
}

std::string SettingsFile::path() const {
  std::lock_guard lock(state_->mutex);
  return state_->path;
}

void SettingsFile::clear() {
  std::lock_guard lock(state_->mutex);
  state_->root.clear();
}

void SettingsFile::clearTable(std::string_view table) {
  std::lock_guard lock(state_->mutex);
  state_->root.erase(table);
}

std::optional<int64_t> SettingsFile::integer(std::string_view table, std::string_view key) const {
  std::lock_guard lock(state_->mutex);
  const toml::node* node = state_->find(table, key);
  if (!node) return std::nullopt;
  if (auto value = node->as_integer()) return value->get();
  // "2.0" is a fine way to write 2; "2.5" or 1e30 are not integers.
  if (auto value = node->as_floating_point()) {
    double number = value->get();
    if (std::trunc(number) == number && std::fabs(number) < 9.2e18) {
      return static_cast<int64_t>(number);
    }
  }
  return std::nullopt;
}

std::optional<double> SettingsFile::number(std::string_view table, std::string_view key) const {
  std::lock_guard lock(state_->mutex);
  const toml::node* node = state_->find(table, key);
  if (!node) return std::nullopt;
  if (auto value = node->as_floating_point()) return value->get();
  if (auto value = node->as_integer()) return static_cast<double>(value->get());
  return std::nullopt;
}

std::optional<bool> SettingsFile::boolean(std::string_view table, std::string_view key) const {
  std::lock_guard lock(state_->mutex);
  const toml::node* node = state_->find(table, key);
  if (auto value = node ? node->as_boolean() : nullptr) return value->get();
  return std::nullopt;
}

std::optional<std::string> SettingsFile::string(std::string_view table,
                                                std::string_view key) const {
  std::lock_guard lock(state_->mutex);
  const toml::node* node = state_->find(table, key);
  if (auto value = node ? node->as_string() : nullptr) return value->get();
  return std::nullopt;
}

void SettingsFile::setInteger(std::string_view table, std::string_view key, int64_t value) {
  std::lock_guard lock(state_->mutex);
  state_->tableForWriting(table).insert_or_assign(key, value);
}

void SettingsFile::setNumber(std::string_view table, std::string_view key, double value) {
  std::lock_guard lock(state_->mutex);
  state_->tableForWriting(table).insert_or_assign(key, value);
}

void SettingsFile::setBoolean(std::string_view table, std::string_view key, bool value) {
  std::lock_guard lock(state_->mutex);
  state_->tableForWriting(table).insert_or_assign(key, value);
}

bool SettingsFile::setString(std::string_view table, std::string_view key,
                             std::string_view value) {
  // The writer would store stray bytes as other characters; better refuse.
  if (!isValidUtf8(value)) {
    logf("settings: {}.{} is not stored: the text is not valid UTF-8", table, key);
    return false;
  }
  std::lock_guard lock(state_->mutex);
  state_->tableForWriting(table).insert_or_assign(key, std::string(value));
  return true;
}

void SettingsFile::erase(std::string_view table, std::string_view key) {
  std::lock_guard lock(state_->mutex);
  if (toml::table* values = state_->root.get_as<toml::table>(table)) values->erase(key);
}

}  // namespace kvtrack
