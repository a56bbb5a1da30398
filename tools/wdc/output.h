// How commands print: plain text for people, one JSON document with --json, and a progress bar on
// a terminal only (never when piped or with --json).
#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <string>

namespace wdc::cli {

void printJson(const nlohmann::ordered_json& json);

// A one-line bar on standard error, redrawn at most ten times a second.
class Progress {
 public:
  Progress(std::string label, uint64_t total, bool enabled);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void advance(uint64_t by = 1);
  void finish();

  // Whether standard error is a terminal and the output is for people.
  static bool wanted(bool jsonOutput);

 private:
  void draw(bool force);

  std::string label_;
  uint64_t total_;
  uint64_t done_ = 0;
  bool enabled_;
  bool finished_ = false;
  std::chrono::nanoseconds lastDraw_{};
};

}  // namespace wdc::cli
