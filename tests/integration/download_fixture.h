// Shared by the download suites: records stored on the emulator in the payload format, a way to
// wait for asynchronous completions, and a count of the free process-wide download slots.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "emulated_dropbox.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc::testing_support {

class DownloadTest : public EmulatedDropbox {
 protected:
  void SetUp() override {
    setUpClients(accessTokenOnly());
    WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
  }
  void TearDown() override { WebDAVDropboxZipSnapshot::sharedSnapshot().reset(); }

  static std::string recordName(int i, const std::string& extension = "tod") {
    return "o_a_k_C_p_P_i_R" + std::to_string(i) + "_d_D." + extension;
  }
  static PlistDictionary payloadOf(const std::string& title) {
    return PlistDictionary{{"title", PlistValue(title)}};
  }
  // Stores a record whose payload is {"title": title} at "/<folder>/<name>".
  void putRecord(const std::string& folder, const std::string& name, const std::string& title) {
    auto stored = encodeStoredPayload(PlistValue(payloadOf(title)));
    ASSERT_TRUE(stored);
    ASSERT_TRUE(emulator_->putFile("/" + folder + "/" + name,
                                   std::string(stored->begin(), stored->end())));
  }
  // `count` records R0..R<count-1> in `folder`, each titled by its name.
  void putRecords(const std::string& folder, int count, const std::string& extension = "tod") {
    for (int i = 0; i < count; ++i) putRecord(folder, recordName(i, extension), recordName(i, extension));
  }
  static std::shared_ptr<WebDAVFileMetaData> meta(const std::string& name) {
    auto file = std::make_shared<WebDAVFileMetaData>();
    file->FilePath = name;
    return file;
  }
  static std::optional<std::string> titleOf(const std::shared_ptr<WebDAVFileContents>& contents) {
    if (!contents || !contents->FileContents) return std::nullopt;
    const PlistValue* title = contents->FileContents->find("title");
    if (title == nullptr || !title->isString()) return std::nullopt;
    return title->asString();
  }

  // What an asynchronous download handed to its completion.
  struct Outcome {
    std::shared_ptr<WebDAVFileContents> contents;
    std::optional<Error> error;
  };
  struct Waiter {
    std::shared_ptr<std::promise<Outcome>> promise = std::make_shared<std::promise<Outcome>>();
    std::future<Outcome> future = promise->get_future();
    WebDAVConnect::ContentsCompletion completion() {
      return [p = promise](std::shared_ptr<WebDAVFileContents> c, std::optional<Error> e) {
        p->set_value(Outcome{std::move(c), std::move(e)});
      };
    }
    // The outcome, or nullopt when none came within a few (real) seconds.
    std::optional<Outcome> get(std::chrono::seconds patience = std::chrono::seconds(10)) {
      if (future.wait_for(patience) != std::future_status::ready) return std::nullopt;
      return future.get();
    }
  };

  // Runs scheduled retries (virtual time) until `waiter` has its outcome.
  std::optional<Outcome> driveUntilDone(Waiter& waiter) {
    for (int round = 0; round < 200; ++round) {
      if (waiter.future.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready) {
        return waiter.future.get();
      }
      env_.runNextScheduled();
    }
    return std::nullopt;
  }

  // Takes every download slot that can be had at once and gives them back: 4 when none leaked.
  int freeDownloadSlots() {
    env_.setRealGrace(std::chrono::milliseconds(20));
    int taken = 0;
    while (taken < 5 && WebDAVConnect::acquireDropboxDownloadSlot()) ++taken;
    for (int i = 0; i < taken; ++i) WebDAVConnect::releaseDropboxDownloadSlot();
    return taken;
  }

  WebDAVDropboxZipSnapshot& snapshot() { return WebDAVDropboxZipSnapshot::sharedSnapshot(); }
};

}  // namespace wdc::testing_support
