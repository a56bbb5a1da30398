// Small helpers shared by the test binaries.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "webdavconnect/error.h"
#include "webdavconnect/plist_value.h"

namespace wdc::test {

Bytes bytesOf(std::string_view text);
std::string textOf(const Bytes& bytes);
Bytes readFileBytes(const std::filesystem::path& path);
void writeFileBytes(const std::filesystem::path& path, const Bytes& bytes);
// A directory removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace wdc::test

// Fails with the error's description when `error` holds one.
#define EXPECT_NO_WDC_ERROR(error) \
  EXPECT_FALSE((error).has_value()) << ((error) ? (error)->description() : std::string())
