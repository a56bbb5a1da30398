#include "archive/archive_test_util.h"

namespace wdc::test {

std::string jsonDifference(const nlohmann::json& actual, const nlohmann::json& expected,
                           const std::string& path) {
  using T = nlohmann::json::value_t;
  auto isInt = [](const nlohmann::json& j) {
    return j.type() == T::number_integer || j.type() == T::number_unsigned;
  };
  if (isInt(actual) && isInt(expected)) {
    const bool aNeg = actual.type() == T::number_integer && actual.get<int64_t>() < 0;
    const bool eNeg = expected.type() == T::number_integer && expected.get<int64_t>() < 0;
    const bool same = aNeg == eNeg && (aNeg ? actual.get<int64_t>() == expected.get<int64_t>()
                                            : actual.get<uint64_t>() == expected.get<uint64_t>());
    return same ? "" : path + ": " + actual.dump() + " != " + expected.dump();
  }
  if (actual.type() != expected.type()) {
    return path + ": kind differs: " + actual.dump() + " vs expected " + expected.dump();
  }
  switch (actual.type()) {
    case T::array:
      if (actual.size() != expected.size()) {
        return path + ": array length " + std::to_string(actual.size()) + " != " +
               std::to_string(expected.size());
      }
      for (size_t i = 0; i < actual.size(); ++i) {
        auto d = jsonDifference(actual[i], expected[i], path + "[" + std::to_string(i) + "]");
        if (!d.empty()) return d;
      }
      return "";
    case T::object:
      for (const auto& [key, value] : expected.items()) {
        if (!actual.contains(key)) return path + ": missing key " + key;
        auto d = jsonDifference(actual[key], value, path + "." + key);
        if (!d.empty()) return d;
      }
      for (const auto& [key, value] : actual.items()) {
        if (!expected.contains(key)) return path + ": unexpected key " + key;
      }
      return "";
    case T::number_float:
      return actual.get<double>() == expected.get<double>()
                 ? ""
                 : path + ": " + actual.dump() + " != " + expected.dump();
    default:
      return actual == expected ? "" : path + ": " + actual.dump() + " != " + expected.dump();
  }
}

}  // namespace wdc::test
