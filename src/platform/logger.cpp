#include "platform/logger.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

#include "webdavconnect/operation_queue.h"

namespace wdc::log {
namespace {

spdlog::level::level_enum toSpdlog(Level level) {
  switch (level) {
    case Level::kError: return spdlog::level::err;
    case Level::kWarning: return spdlog::level::warn;
    case Level::kInfo: return spdlog::level::info;
    case Level::kDebug: return spdlog::level::debug;
    case Level::kVerbose: return spdlog::level::trace;
  }
  return spdlog::level::info;
}

Level fromSpdlog(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::critical:
    case spdlog::level::err: return Level::kError;
    case spdlog::level::warn: return Level::kWarning;
    case spdlog::level::info: return Level::kInfo;
    case spdlog::level::debug: return Level::kDebug;
    default: return Level::kVerbose;
  }
}

std::string baseName(const char* path) {
  std::string_view view(path ? path : "");
  auto slash = view.find_last_of('/');
  return std::string(slash == std::string_view::npos ? view : view.substr(slash + 1));
}

// The delivery of the message being written on this thread: sinks see only spdlog's message, and
// emit() runs on the caller's thread (sync) or the log thread (async).
thread_local Delivery currentDelivery = Delivery::kSync;

class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<CaptureLog::Entry> snapshot() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  void clearEntries() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    entries_.push_back({fromSpdlog(msg.level), std::string(msg.payload.begin(), msg.payload.end()),
                        baseName(msg.source.filename),
                        msg.source.funcname ? msg.source.funcname : "", msg.source.line,
                        currentDelivery});
  }
  void flush_() override {}

 private:
  std::vector<CaptureLog::Entry> entries_;
};

struct LoggerState {
  LoggerState() {
    console = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
    logger = std::make_shared<spdlog::logger>("webdavconnect", console);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %v (%s:%#)");
    logger->set_level(spdlog::level::trace);  // filtering happens in write()
    capture = std::make_shared<CaptureSink>();
  }
  std::shared_ptr<spdlog::sinks::sink> console;
  std::shared_ptr<spdlog::logger> logger;
  std::shared_ptr<CaptureSink> capture;
  std::atomic<Level> level{Level::kInfo};
  std::mutex sinksMutex;  // guards changes to the logger's sink list
};

LoggerState& state() {
  static LoggerState* s = new LoggerState();
  return *s;
}

SerialQueue& asyncQueue() {
  static SerialQueue* queue = new SerialQueue("webdavconnect.log");
  return *queue;
}

void emit(Level level, const std::string& message, const SourceLocation& where,
          Delivery delivery) {
  currentDelivery = delivery;
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.sinksMutex);
  s.logger->log(spdlog::source_loc{where.file_name(), static_cast<int>(where.line()),
                                   where.function_name()},
                toSpdlog(level), "{}", message);
}

void setSink(const std::shared_ptr<spdlog::sinks::sink>& sink, bool present) {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.sinksMutex);
  auto& sinks = s.logger->sinks();
  auto it = std::find(sinks.begin(), sinks.end(), sink);
  if (present && it == sinks.end()) sinks.push_back(sink);
  if (!present && it != sinks.end()) sinks.erase(it);
}

}  // namespace

void write(Level level, std::string_view message, Delivery delivery,
           const SourceLocation& where) {
  if (static_cast<int>(level) > static_cast<int>(state().level.load())) return;
  if (delivery == Delivery::kSync) {
    emit(level, std::string(message), where, Delivery::kSync);
    return;
  }
  asyncQueue().addOperation(
      [level, text = std::string(message), where] { emit(level, text, where, Delivery::kAsync); });
}

void setLevel(Level level) { state().level.store(level); }
Level level() { return state().level.load(); }
void setConsoleOutput(bool enabled) { setSink(state().console, enabled); }
void flushAsync() { asyncQueue().waitUntilAllOperationsAreFinished(); }

std::string_view levelName(Level level) {
  switch (level) {
    case Level::kError: return "error";
    case Level::kWarning: return "warning";
    case Level::kInfo: return "info";
    case Level::kDebug: return "debug";
    case Level::kVerbose: return "verbose";
  }
  return "?";
}

CaptureLog::CaptureLog() : previousLevel_(level()) {
  flushAsync();
  state().capture->clearEntries();
  setSink(state().capture, true);
  setLevel(Level::kVerbose);
}

CaptureLog::~CaptureLog() {
  flushAsync();
  setSink(state().capture, false);
  setLevel(previousLevel_);
}

std::vector<CaptureLog::Entry> CaptureLog::entries() const {
  flushAsync();
  return state().capture->snapshot();
}

std::vector<std::string> CaptureLog::messages(Level level) const {
  std::vector<std::string> out;
  for (auto& entry : entries())
    if (entry.level == level) out.push_back(entry.message);
  return out;
}

bool CaptureLog::contains(Level level, std::string_view message) const {
  for (auto& entry : entries())
    if (entry.level == level && entry.message == message) return true;
  return false;
}

void CaptureLog::clear() {
  flushAsync();
  state().capture->clearEntries();
}

}  // namespace wdc::log
