// The library's one leveled logger (error, warning, info, debug, verbose) over spdlog. Every line
// carries the source file, function and line of its call.
// Synchronous logging is written before the call returns; asynchronous logging is handed to one
// background thread and written later, in order. CaptureLog lets tests assert exact lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace wdc::log {

enum class Level { kError, kWarning, kInfo, kDebug, kVerbose };
enum class Delivery { kSync, kAsync };

// Where a log call was made. Built from the compiler builtins rather than SourceLocation,
// which clang 14 (our fuzzing compiler) does not provide.
struct SourceLocation {
  const char* fileName = "";
  const char* functionName = "";
  std::uint_least32_t lineNumber = 0;

  static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                          const char* function = __builtin_FUNCTION(),
                                          std::uint_least32_t line = __builtin_LINE()) {
    return SourceLocation{file, function, line};
  }
  [[nodiscard]] constexpr const char* file_name() const { return fileName; }
  [[nodiscard]] constexpr const char* function_name() const { return functionName; }
  [[nodiscard]] constexpr std::uint_least32_t line() const { return lineNumber; }
};

// Writes one message. Messages more verbose than the current level are dropped.
void write(Level level, std::string_view message, Delivery delivery,
           const SourceLocation& where);

inline void error(std::string_view message, Delivery delivery = Delivery::kSync,
                  const SourceLocation& where = SourceLocation::current()) {
  write(Level::kError, message, delivery, where);
}
inline void warning(std::string_view message, Delivery delivery = Delivery::kSync,
                    const SourceLocation& where = SourceLocation::current()) {
  write(Level::kWarning, message, delivery, where);
}
inline void info(std::string_view message, Delivery delivery = Delivery::kSync,
                 const SourceLocation& where = SourceLocation::current()) {
  write(Level::kInfo, message, delivery, where);
}
inline void debug(std::string_view message, Delivery delivery = Delivery::kSync,
                  const SourceLocation& where = SourceLocation::current()) {
  write(Level::kDebug, message, delivery, where);
}
inline void verbose(std::string_view message, Delivery delivery = Delivery::kSync,
                    const SourceLocation& where = SourceLocation::current()) {
  write(Level::kVerbose, message, delivery, where);
}

// The most verbose level written. Default: info. Thread-safe.
void setLevel(Level level);
[[nodiscard]] Level level();
// Turns the standard-error sink on or off (tools and benchmarks silence it). Default: on.
void setConsoleOutput(bool enabled);
// Blocks until every message logged asynchronously before this call has been written.
void flushAsync();

[[nodiscard]] std::string_view levelName(Level level);

// Records every message written while it lives (all levels: it raises the level to verbose and
// restores it afterwards). Use one at a time.
class CaptureLog {
 public:
  struct Entry {
    Level level;
    std::string message;
    std::string file;  // base name of the source file
    std::string function;
    int line;
    // How the message was handed over: written before the call returned, or by the log thread.
    Delivery delivery = Delivery::kSync;
    bool operator==(const Entry&) const = default;
  };

  CaptureLog();
  ~CaptureLog();
  CaptureLog(const CaptureLog&) = delete;
  CaptureLog& operator=(const CaptureLog&) = delete;

  // Every entry so far, after waiting for pending asynchronous messages.
  [[nodiscard]] std::vector<Entry> entries() const;
  // The messages of one level, in order.
  [[nodiscard]] std::vector<std::string> messages(Level level) const;
  // True when some entry has exactly this level and text.
  [[nodiscard]] bool contains(Level level, std::string_view message) const;
  void clear();

 private:
  Level previousLevel_;
};

}  // namespace wdc::log
