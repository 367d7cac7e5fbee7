#include "kvtrack/support/Log.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace kvtrack {

struct LogCapture::Store {
  mutable std::mutex mutex;
  std::vector<std::string> lines;
};

namespace {

// Hands each formatted payload to the live captures.
class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  void attach(std::shared_ptr<LogCapture::Store> store) {
    std::lock_guard lock(captures_mutex_);
    captures_.push_back(std::move(store));
  }
  void detach(const LogCapture::Store* store) {
    std::lock_guard lock(captures_mutex_);
    std::erase_if(captures_, [&](const auto& s) { return s.get() == store; });
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    std::string text(msg.payload.data(), msg.payload.size());
    std::lock_guard lock(captures_mutex_);
    for (const auto& store : captures_) {
      std::lock_guard storeLock(store->mutex);
      store->lines.push_back(text);
    }
  }
  void flush_() override {}

 private:
  std::mutex captures_mutex_;
  std::vector<std::shared_ptr<LogCapture::Store>> captures_;
};

struct Sinks {
  std::shared_ptr<CaptureSink> capture = std::make_shared<CaptureSink>();
  std::shared_ptr<spdlog::sinks::stderr_sink_mt> standardError =
      std::make_shared<spdlog::sinks::stderr_sink_mt>();
  std::shared_ptr<spdlog::logger> logger;

  Sinks() {
    standardError->set_pattern("%H:%M:%S.%e kvtrack: %v");
    logger = std::make_shared<spdlog::logger>(
        "kvtrack", spdlog::sinks_init_list{standardError, capture});
    logger->set_level(spdlog::level::info);
    logger->flush_on(spdlog::level::info);
  }
};

Sinks& sinks() {
  static Sinks instance;
  return instance;
}

}  // namespace

void logLine(std::string_view line) {
  sinks().logger->info("{}", line);
}

void setLogToStandardError(bool enabled) {
  sinks().standardError->set_level(enabled ? spdlog::level::trace : spdlog::level::off);
}

LogCapture::LogCapture() : store_(std::make_shared<Store>()) {
  sinks().capture->attach(store_);
}

LogCapture::~LogCapture() {
  sinks().capture->detach(store_.get());
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(store_->mutex);
  return store_->lines;
}

bool LogCapture::contains(std::string_view fragment) const {
  std::lock_guard lock(store_->mutex);
  return std::any_of(store_->lines.begin(), store_->lines.end(),
                     [&](const std::string& l) { return l.find(fragment) != std::string::npos; });
}

void LogCapture::clear() {
  std::lock_guard lock(store_->mutex);
  store_->lines.clear();
}

}  // namespace kvtrack
