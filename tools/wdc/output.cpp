#include "tools/wdc/output.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "platform/env.h"

namespace wdc::cli {

void printJson(const nlohmann::ordered_json& json) {
  std::cout << json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

Progress::Progress(std::string label, uint64_t total, bool enabled)
    : label_(std::move(label)), total_(total), enabled_(enabled) {
  draw(true);
}

Progress::~Progress() { finish(); }

bool Progress::wanted(bool jsonOutput) { return !jsonOutput && isatty(STDERR_FILENO) == 1; }

void Progress::advance(uint64_t by) {
  done_ += by;
  draw(false);
}

void Progress::finish() {
  if (!enabled_ || finished_) return;
  finished_ = true;
  draw(true);
  std::fputc('\n', stderr);
}

void Progress::draw(bool force) {
  if (!enabled_) return;
  const auto now = Env::current().uptime();
  if (!force && now - lastDraw_ < std::chrono::milliseconds(100) && done_ < total_) return;
  lastDraw_ = now;
  constexpr int kWidth = 30;
  const uint64_t shown = done_ > total_ ? total_ : done_;
  const int filled = total_ == 0 ? kWidth : static_cast<int>(shown * kWidth / total_);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, '.');
  std::fprintf(stderr, "\r%-24s [%s] %llu/%llu", label_.c_str(), bar.c_str(),
               static_cast<unsigned long long>(done_), static_cast<unsigned long long>(total_));
  std::fflush(stderr);
}

}  // namespace wdc::cli
