// Small timing kit for the benchmark programs: repeat a body until a time budget is spent, then
// print per-operation time, throughput and the ratio against a named baseline.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace wdc::bench {

struct Measurement {
  std::string name;
  double nanosPerOp = 0;    // median over the rounds
  double bytesPerOp = 0;    // 0 when throughput is meaningless
  std::size_t iterations = 0;
};

// Runs `body` in rounds of growing size until about `budgetSeconds` have passed and returns the
// median time per call. `bytesPerOp` only feeds the MB/s column.
Measurement measure(const std::string& name, const std::function<void()>& body,
                    double bytesPerOp = 0, double budgetSeconds = 0.5);

// Prints one table: ns/op, ops/s, MB/s and "x of <baseline>" (baseline time / this time, so
// values above 1 mean faster than the baseline). The first row is the baseline unless named.
void printTable(const std::string& title, const std::vector<Measurement>& rows,
                const std::string& baselineName = "");

// Keeps the optimiser from discarding a computed value.
void doNotOptimize(const void* p);

}  // namespace wdc::bench
