// Verbs shared by the write-path tests: make a record with a payload, run a batch to its end while
// driving virtual time, and read back what the store holds for a record.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "emulated_dropbox.h"
#include "emulator/store.h"
#include "webdavconnect/payload.h"

namespace wdc::testing_support {

using Results = std::vector<std::shared_ptr<WebDAVBatchUploadResult>>;
using Objects = std::vector<std::shared_ptr<WebDAVFileContents>>;

// What a batch's completion received, and where.
struct BatchOutcome {
  Results results;
  std::optional<Error> error;
  bool onGivenQueue = false;
  int calls = 0;
};

// One request as it reached the emulator.
struct Arrival {
  std::string route;
  bool rateLimited;
  double uptimeSeconds;
};

class WriteFixture : public EmulatedDropbox {
 protected:
  void SetUp() override {
    // The observer is set while the emulator is stopped; a restart keeps the port and the store.
    emulator_->stop();
    emulator_->setArrivalObserver([this](std::string_view route, bool rateLimited,
                                         std::chrono::nanoseconds at) {
      std::lock_guard lock(arrivalsMutex_);
      arrivals_.push_back({std::string(route), rateLimited, toSeconds(at)});
    });
    std::string reason;
    ASSERT_TRUE(emulator_->start(&reason)) << reason;
    setUpClients(accessTokenOnly());
    answers_ = std::make_shared<SerialQueue>("test.batch.completions");
  }

  // A record with upper-case identifiers and a payload naming it.
  static std::shared_ptr<WebDAVFileContents> record(const std::string& uid,
                                                    const std::string& extension = "tod") {
    auto meta = std::make_shared<WebDAVFileMetaData>();
    meta->OpType = "1";
    meta->ContainerUID = "C" + uid;
    meta->ParentUID = "P" + uid;
    meta->UID = "U" + uid;
    meta->Extension = extension;
    meta->FilePath = "local-" + uid;
    auto payload = std::make_shared<PlistDictionary>();
    payload->set("title", PlistValue("Task " + uid));
    payload->set("note", PlistValue(std::string(900, static_cast<char>('a' + uid.size() % 26))));
    payload->set("order", PlistValue(static_cast<int64_t>(uid.size())));
    payload->set("due", PlistValue(Date{789.5}));
    return std::make_shared<WebDAVFileContents>(meta, payload);
  }

  static Objects records(int count, const std::string& prefix = "R") {
    Objects out;
    for (int i = 0; i < count; ++i) out.push_back(record(prefix + std::to_string(i)));
    return out;
  }

  // The store path a record goes to in `folder`.
  static std::string storedPath(const std::string& folder, const WebDAVFileContents& contents) {
    const auto& m = *contents.FileMetaData;
    auto lower = [](std::string s) {
      for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      return s;
    };
    return "/" + folder + "/o_" + *m.OpType + "_k_" + lower(*m.ContainerUID) + "_p_" +
           lower(*m.ParentUID) + "_i_" + lower(*m.UID) + "_d_." + *m.Extension;
  }

  // What the store holds at `path`, decoded with the payload reader.
  std::optional<PlistValue> readBack(const std::string& path) {
    auto bytes = emulator_->readFile(path);
    if (!bytes) return std::nullopt;
    std::optional<Error> error;
    auto value = decodeStoredPayload(
        std::span(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()), &error);
    EXPECT_FALSE(error) << error->description();
    return value;
  }

  // Runs `start` (which starts a batch with `completion`) and drives virtual time until the
  // completion has run; before each timer the shared cooldown is sampled.
  // `turn`, when given, runs on the test thread at every step of the drive.
  BatchOutcome runBatch(const std::function<void(WebDAVConnect::BatchUploadCompletion)>& start,
                        const std::function<void()>& turn = {}) {
    auto outcome = std::make_shared<BatchOutcome>();
    auto done = std::make_shared<std::promise<void>>();
    auto queue = answers_;
    start([outcome, done, queue](const Results& results, const std::optional<Error>& error) {
      outcome->results = results;
      outcome->error = error;
      outcome->onGivenQueue = queue->isCurrentQueue();
      if (++outcome->calls == 1) done->set_value();
    });
    pumpUntil(done->get_future(), turn);
    answers_->waitUntilAllOperationsAreFinished();
    return *outcome;
  }

  BatchOutcome uploadBatch(const std::shared_ptr<WebDAVConnect>& connection,
                           const Objects& objects, int64_t retryLimit,
                           const std::string& folder = "tod") {
    return runBatch([&](WebDAVConnect::BatchUploadCompletion completion) {
      connection->uploadFileWithObjects(objects, retryLimit, folder, answers_,
                                        std::move(completion));
    });
  }

  void pumpUntil(std::future<void> done, const std::function<void()>& turn) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (done.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) {
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << "the batch never completed";
      if (turn) turn();
      // Sampled only once a timer is already waiting, so a cooldown opened just before its retry
      // was scheduled is seen before that timer moves time past it.
      const bool timerWaiting = env_.scheduledCount() > 0;
      largestCooldown_ =
          std::max(largestCooldown_, WebDAVConnect::dropboxCooldownRemainingSeconds());
      if (!timerWaiting || !env_.runNextScheduled()) done.wait_for(std::chrono::milliseconds(2));
    }
  }

  std::vector<Arrival> arrivals() {
    std::lock_guard lock(arrivalsMutex_);
    return arrivals_;
  }

  std::shared_ptr<SerialQueue> answers_;
  double largestCooldown_ = 0;
  std::mutex arrivalsMutex_;
  std::vector<Arrival> arrivals_;
};

}  // namespace wdc::testing_support
