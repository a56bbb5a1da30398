// Fixture of the delta listing tests: records put straight into the emulator's store, listings
// through the real client, and the verbs the tests read as.
#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

#include "emulated_dropbox.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc::testing_support {

class DeltaListing : public EmulatedDropbox {
 protected:
  static constexpr const char* kList = "files/list_folder";
  static constexpr const char* kContinue = "files/list_folder/continue";

  void SetUp() override {
    setUpClients(accessTokenOnly());
    WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
    connection_ = newConnection();
  }
  void TearDown() override { WebDAVDropboxZipSnapshot::sharedSnapshot().reset(); }

  // "o_a_k_c_p_p_i_<uid>_d_dev.<ext>": a record name with every field.
  static std::string recordName(const std::string& uid, const std::string& extension,
                                const std::string& opType = "a") {
    return "o_" + opType + "_k_c_p_p_i_" + uid + "_d_dev." + extension;
  }
  // `count` records "<prefix>0000"... in /<folder>, named with <extension>.
  void putRecords(const std::string& folder, const std::string& extension, int count,
                  const std::string& prefix = "u") {
    for (int i = 0; i < count; ++i) {
      char uid[16];
      std::snprintf(uid, sizeof uid, "%04d", i);
      put("/" + folder + "/" + recordName(prefix + uid, extension));
    }
  }
  void put(const std::string& path) { ASSERT_TRUE(emulator_->putFile(path, "x", kModified)); }

  // A fetch (cache refused) and a cache-only call through the public operation.
  std::optional<FileList> fetch(const std::optional<std::string>& folder,
                                const std::optional<std::string>& extension,
                                const std::optional<std::string>& cursor = std::nullopt) {
    error_.reset();
    return connection_->getDeltaFileList(&error_, folder, cursor, extension, false);
  }
  std::optional<FileList> cached(const std::optional<std::string>& folder,
                                 const std::optional<std::string>& extension) {
    error_.reset();
    return connection_->getDeltaFileList(&error_, folder, std::nullopt, extension, true);
  }

  static std::vector<std::string> namesOf(const std::optional<FileList>& records) {
    std::vector<std::string> names;
    if (records) {
      for (const auto& record : *records) names.push_back(record->FilePath.value_or("(absent)"));
    }
    return names;
  }

  // The listing's own lines, in order, without the client's.
  std::vector<std::string> listingLines(log::Level level) const {
    std::vector<std::string> lines;
    for (const auto& line : log_.messages(level)) {
      if (line.rfind("[DROPBOX] Delta", 0) == 0 || line.rfind("[DROPBOX] delta", 0) == 0 ||
          line.rfind("[DROPBOX] ...", 0) == 0) {
        lines.push_back(line);
      }
    }
    return lines;
  }

  static WebDAVDropboxZipSnapshot& snapshot() { return WebDAVDropboxZipSnapshot::sharedSnapshot(); }

  // 2024-05-01T12:30:05Z.
  static constexpr std::chrono::system_clock::time_point kModified{
      std::chrono::seconds(1714566605)};

  std::shared_ptr<WebDAVConnect> connection_;
  std::optional<Error> error_;
};

}  // namespace wdc::testing_support
