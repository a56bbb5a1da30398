// Helpers for the archive tests: fixture paths, JSON compared with its token kinds kept (1, 1.0
// and true differ), and a stored payload built by hand.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

namespace wdc::test {

inline std::filesystem::path fixturesDir() {
  return std::filesystem::path(WDC_FIXTURES_DIR) / "keyed-archive";
}

// Empty when equal; otherwise where and how the two differ. Integers compare by value whatever
// their signedness; reals only equal reals; object key order does not matter.
std::string jsonDifference(const nlohmann::json& actual, const nlohmann::json& expected,
                           const std::string& path = "$");

}  // namespace wdc::test
