// Every shared fixture: Apple-written keyed archives and plain binary plists must decode to what
// their .expected.json says; the files under invalid/ must be refused with an error value.
#include <gtest/gtest.h>

#include <fstream>

#include "archive/archive_test_util.h"
#include "support/test_util.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/payload.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

json readJson(const fs::path& path) {
  std::ifstream in(path);
  return json::parse(in);
}

std::vector<fs::path> bplistsIn(const fs::path& dir) {
  std::vector<fs::path> out;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() == ".bplist") out.push_back(entry.path());
  }
  std::sort(out.begin(), out.end());
  return out;
}

fs::path expectedFor(const fs::path& bplist) {
  return fs::path(bplist).replace_extension(".expected.json");
}

TEST(KeyedArchiveFixtures, EveryValidFixtureDecodesAsExpected) {
  const auto files = bplistsIn(test::fixturesDir());
  ASSERT_GE(files.size(), 32u) << "fixtures not found in " << test::fixturesDir();
  for (const auto& file : files) {
    SCOPED_TRACE(file.filename().string());
    const json expected = readJson(expectedFor(file));
    const Bytes bytes = test::readFileBytes(file);
    std::optional<Error> error;
    json actual;
    if (expected["kind"] == "NSKeyedArchiver") {
      auto top = unarchiveTopLevelObjects(bytes, &error);
      ASSERT_TRUE(top.has_value()) << error->description();
      // Top-level keys such as "$0" are not dictionary keys of the value: compare key by key.
      actual = json::object();
      for (size_t i = 0; i < top->size(); ++i) {
        actual[top->keys()[i]] = json::parse(payloadValueToJSON(top->values()[i]));
      }
      EXPECT_EQ(test::jsonDifference(actual, expected["top"]), "");
    } else {
      auto root = readBinaryPropertyList(bytes, &error);
      ASSERT_TRUE(root.has_value()) << error->description();
      actual = json::parse(payloadValueToJSON(*root));
      EXPECT_EQ(test::jsonDifference(actual, expected["root"]), "");
    }
  }
}

TEST(KeyedArchiveFixtures, EveryInvalidFixtureIsRefused) {
  const auto files = bplistsIn(test::fixturesDir() / "invalid");
  ASSERT_EQ(files.size(), 4u);
  for (const auto& file : files) {
    SCOPED_TRACE(file.filename().string());
    std::optional<Error> error;
    EXPECT_FALSE(unarchiveTopLevelObjects(test::readFileBytes(file), &error).has_value());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain(), kWebDAVConnectErrorDomain);
    EXPECT_FALSE(error->localizedDescription().empty());
  }
}

}  // namespace
}  // namespace wdc
