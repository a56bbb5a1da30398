#include "support/bench_util.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace wdc::bench {

namespace {
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}
}  // namespace

Measurement measure(const std::string& name, const std::function<void()>& body,
                    double bytesPerOp, double budgetSeconds) {
  body();  // warm caches and lazy initialisation outside the timed rounds
  std::size_t batch = 1;
  std::vector<double> perOp;
  std::size_t total = 0;
  const auto begin = Clock::now();
  while (secondsSince(begin) < budgetSeconds || perOp.size() < 3) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < batch; ++i) body();
    const double elapsed = secondsSince(start);
    perOp.push_back(elapsed * 1e9 / static_cast<double>(batch));
    total += batch;
    if (elapsed < budgetSeconds / 20) batch *= 2;
  }
  std::sort(perOp.begin(), perOp.end());
  return Measurement{name, perOp[perOp.size() / 2], bytesPerOp, total};
}

void printTable(const std::string& title, const std::vector<Measurement>& rows,
                const std::string& baselineName) {
  if (rows.empty()) return;
  const Measurement* baseline = &rows.front();
  for (const auto& row : rows) {
    if (row.name == baselineName) baseline = &row;
  }
  std::printf("\n%s\n", title.c_str());
  std::printf("  %-34s %14s %14s %10s %12s\n", "", "ns/op", "ops/s", "MB/s",
              ("x of " + baseline->name).substr(0, 12).c_str());
  for (const auto& row : rows) {
    const double opsPerSecond = 1e9 / row.nanosPerOp;
    const double mbPerSecond = row.bytesPerOp > 0 ? row.bytesPerOp * opsPerSecond / 1e6 : 0;
    std::printf("  %-34s %14.1f %14.0f %10.1f %12.2f\n", row.name.c_str(), row.nanosPerOp,
                opsPerSecond, mbPerSecond, baseline->nanosPerOp / row.nanosPerOp);
  }
  std::fflush(stdout);
}

void doNotOptimize(const void* p) {
  asm volatile("" : : "g"(p) : "memory");
}

}  // namespace wdc::bench
