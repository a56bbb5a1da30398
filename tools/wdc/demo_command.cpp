// `wdc demo`: a whole sync as a host runs it, against the emulator started in-process on
// loopback. Another device's records are seeded first; then: account, current lock, lock, delta
// listing, every record downloaded (through the folder snapshot), a batch upload, deletes,
// unlock. Prints progress, then each step's time and request count, and checks that every
// downloaded record is exactly what the other device stored.
#include <CLI/CLI.hpp>

#include <chrono>
#include <filesystem>
#include <iostream>

#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "tools/wdc/cli_context.h"
#include "tools/wdc/fetch_records.h"
#include "tools/wdc/output.h"
#include "tools/wdc/store_commands.h"
#include "webdavconnect/payload.h"

namespace wdc::cli {
namespace {

constexpr const char* kFolders[] = {"tod", "col", "cal", "cat", "cag", "loc"};
constexpr const char* kDemoToken = "wdc-demo-token";

struct DemoOptions {
  uint64_t records = 600;
  uint32_t latencyMs = 0;
};

struct StepFigure {
  std::string name;
  double seconds = 0;
  uint64_t requests = 0;
  std::string detail;
};

// The payload another device stored for record `n`: a to-do's fields.
PlistDictionary payloadFor(uint64_t n, const char* folder) {
  PlistDictionary payload;
  payload.set("Title", PlistValue(fmt::format("{} record {} from the other device", folder, n)));
  payload.set("Notes", PlistValue(std::string(700 + n % 300, static_cast<char>('a' + n % 26))));
  payload.set("Order", PlistValue(static_cast<int64_t>(n)));
  payload.set("Done", PlistValue(n % 3 == 0));
  payload.set("Due", PlistValue(Date::fromUnixSeconds(1'790'000'000.0 + static_cast<double>(n))));
  return payload;
}

std::string recordName(uint64_t n, const char* folder, const char* device) {
  return fmt::format("o_u_k_c{:04}_p_p{:04}_i_r{:06}_d_{}.{}", n % 7, n % 11, n, device, folder);
}

class Timer {
 public:
  explicit Timer(const emu::Emulator& emulator)
      : emulator_(&emulator), start_(Env::current().uptime()), requests_(emulator.requestCount("*")) {}
  StepFigure done(std::string name, std::string detail) const {
    return StepFigure{std::move(name),
                      std::chrono::duration<double>(Env::current().uptime() - start_).count(),
                      emulator_->requestCount("*") - requests_, std::move(detail)};
  }

 private:
  const emu::Emulator* emulator_;
  std::chrono::nanoseconds start_;
  uint64_t requests_;
};

void say(const GlobalOptions& options, const std::string& line) {
  if (!options.json) std::cerr << line << std::endl;
}

void runDemo(GlobalOptions& options, const DemoOptions& demo) {
  applyLogLevel(options.logLevel);
  if (demo.records < 6) throw CommandFailure("--records must be at least 6", 2);
  const std::filesystem::path scratch =
      Env::current().temporaryDirectory() / ("wdc-demo-" + Env::current().newUUID());
  std::filesystem::create_directories(scratch);

  emu::Emulator emulator({.tls = true, .token = kDemoToken, .latencyMs = demo.latencyMs});
  std::string problem;
  if (!emulator.start(&problem) || !emulator.writeCertificate(scratch / "ca.pem", &problem)) {
    throw CommandFailure("the emulator did not start: " + problem);
  }
  say(options, "emulator listening on " + emulator.baseUrl() +
                   (demo.latencyMs ? fmt::format(" ({} ms added per request)", demo.latencyMs) : ""));

  // Another device's records, as it stores them: gzip of a keyed archive, encoded names.
  std::map<std::string, std::pair<const char*, PlistDictionary>> seeded;  // name -> folder, data
  {
    Progress progress("seeding the store", demo.records, Progress::wanted(options.json));
    for (uint64_t n = 0; n < demo.records; ++n) {
      const char* folder = kFolders[n % std::size(kFolders)];
      PlistDictionary payload = payloadFor(n, folder);
      auto stored = encodeStoredPayload(PlistValue(payload));
      if (!stored) throw CommandFailure("could not encode a record");
      const std::string name = recordName(n, folder, "otherdevice");
      emulator.putFile(fmt::format("/{}/{}", folder, name),
                       std::string_view(reinterpret_cast<const char*>(stored->data()), stored->size()));
      seeded.emplace(name, std::make_pair(folder, std::move(payload)));
      progress.advance();
    }
  }
  say(options, fmt::format("seeded {} records of another device in {} folders", demo.records,
                           std::size(kFolders)));

  GlobalOptions store = options;
  store.apiUrl = store.contentUrl = store.notifyUrl = emulator.baseUrl();
  store.caFile = (scratch / "ca.pem").string();
  store.token = kDemoToken;
  auto connection = openStore(store);
  // The lock upload reads its file from the current directory: the host keeps it at the
  // temporary directory.
  std::filesystem::current_path(Env::current().temporaryDirectory());
  emulator.resetRequestCounts();
  std::vector<StepFigure> steps;
  std::optional<Error> error;

  Timer timer(emulator);
  auto account = connection->getAccountUsername(&error);
  if (!account) throw CommandFailure(failureText("account", error));
  steps.push_back(timer.done("account", *account));

  timer = Timer(emulator);
  auto current = connection->getCurrentLockFile(&error);
  if (!current && error) throw CommandFailure(failureText("current lock", error));
  steps.push_back(timer.done("current lock", current ? "held by " + current->UID.value_or("")
                                                     : "none"));

  timer = Timer(emulator);
  auto lock = connection->lockDirectory("wdc-demo", &error);
  if (!lock) throw CommandFailure(failureText("lock", error));
  steps.push_back(timer.done("lock", lock->FilePath.value_or("")));

  timer = Timer(emulator);
  std::vector<std::pair<std::string, FileList>> listed;
  for (size_t i = 0; i < std::size(kFolders); ++i) {
    // One fetch of the change feed; the other folders are answered from its cache.
    auto records = connection->getDeltaFileList(&error, kFolders[i], std::nullopt, std::nullopt, i > 0);
    if (!records) throw CommandFailure(failureText("delta listing", error));
    listed.emplace_back(kFolders[i], std::move(*records));
  }
  size_t listedCount = 0;
  for (const auto& [folder, records] : listed) listedCount += records.size();
  steps.push_back(timer.done("delta listing", fmt::format("{} records", listedCount)));
  if (listedCount != demo.records) {
    throw CommandFailure(fmt::format("the listing found {} of {} records", listedCount, demo.records));
  }

  timer = Timer(emulator);
  size_t verified = 0;
  {
    Progress progress("downloading", listedCount, Progress::wanted(options.json));
    for (const auto& [folder, records] : listed) {
      for (const FetchedRecord& fetched : fetchRecords(*connection, records, folder, 5,
                                                       [&](const FetchedRecord&) { progress.advance(); })) {
        const std::string name = fetched.meta->FilePath.value_or("");
        if (!fetched.contents || !fetched.contents->FileContents) {
          throw CommandFailure(failureText("download of " + name, fetched.error));
        }
        auto expected = seeded.find(name);
        if (expected == seeded.end() ||
            !(PlistValue(*fetched.contents->FileContents) == PlistValue(expected->second.second))) {
          throw CommandFailure("downloaded record " + name + " differs from what was stored");
        }
        ++verified;
      }
    }
  }
  steps.push_back(timer.done("download records",
                             fmt::format("{} verified, {} ZIP + {} single", verified,
                                         emulator.requestCount("files/download_zip"),
                                         emulator.requestCount("files/download"))));

  // This device's own edits: new records in one batch.
  const uint64_t uploads = std::max<uint64_t>(6, demo.records / 10);
  std::vector<std::shared_ptr<WebDAVFileContents>> mine;
  for (uint64_t n = 0; n < uploads; ++n) {
    auto meta = std::make_shared<WebDAVFileMetaData>();
    meta->OpType = "u";
    meta->ContainerUID = "c0001";
    meta->ParentUID = "p0001";
    meta->UID = fmt::format("mine{:06}", n);
    meta->Extension = "tod";
    mine.push_back(std::make_shared<WebDAVFileContents>(
        meta, std::make_shared<PlistDictionary>(payloadFor(1'000'000 + n, "tod"))));
  }
  timer = Timer(emulator);
  std::vector<std::shared_ptr<WebDAVBatchUploadResult>> results;
  const std::optional<Error> uploadError = uploadBatch(*connection, mine, "tod", 5, results);
  size_t uploaded = 0;
  for (const auto& result : results) uploaded += (result && !result->uploadError) ? 1 : 0;
  if (uploadError || uploaded != mine.size()) {
    throw CommandFailure(failureText(fmt::format("batch upload ({} of {})", uploaded, mine.size()),
                                     uploadError));
  }
  steps.push_back(timer.done("batch upload", fmt::format("{} records", uploaded)));

  // Records the other device marked for removal.
  std::vector<std::string> doomed;
  for (const auto& [folder, records] : listed) {
    for (size_t i = 0; i < records.size() && doomed.size() < uploads; i += 7) {
      doomed.push_back(folder + "/" + records[i]->FilePath.value_or(""));
    }
  }
  timer = Timer(emulator);
  if (!connection->deleteArbitraryFiles(doomed, &error)) {
    throw CommandFailure(failureText("batch delete", error));
  }
  steps.push_back(timer.done("batch delete", fmt::format("{} records", doomed.size())));

  timer = Timer(emulator);
  if (!connection->unlockDirectory(lock->FilePath.value_or(""), &error)) {
    throw CommandFailure(failureText("unlock", error));
  }
  steps.push_back(timer.done("unlock", ""));

  emulator.stop();
  std::filesystem::remove_all(scratch);

  double total = 0;
  uint64_t requests = 0;
  for (const auto& step : steps) {
    total += step.seconds;
    requests += step.requests;
  }
  if (options.json) {
    nlohmann::ordered_json table = nlohmann::ordered_json::array();
    for (const auto& step : steps) {
      table.push_back({{"step", step.name}, {"seconds", step.seconds},
                       {"requests", step.requests}, {"detail", step.detail}});
    }
    printJson({{"records", demo.records}, {"latencyMs", demo.latencyMs}, {"steps", table},
               {"totalSeconds", total}, {"totalRequests", requests}});
    return;
  }
  std::cout << fmt::format("\nsync of {} records ({} ms added per request)\n", demo.records,
                           demo.latencyMs)
            << fmt::format("{:<18} {:>10} {:>9}  {}\n", "step", "time", "requests", "")
            << fmt::format("{:-<18} {:->10} {:->9}\n", "", "", "");
  for (const auto& step : steps) {
    std::cout << fmt::format("{:<18} {:>8.1f}ms {:>9}  {}\n", step.name, step.seconds * 1000,
                             step.requests, step.detail);
  }
  std::cout << fmt::format("{:-<18} {:->10} {:->9}\n", "", "", "")
            << fmt::format("{:<18} {:>8.1f}ms {:>9}\n", "total", total * 1000, requests);
}

}  // namespace

void registerDemoCommand(CLI::App& app, GlobalOptions& options) {
  auto demo = std::make_shared<DemoOptions>();
  auto* command = app.add_subcommand(
      "demo", "Run a whole sync against an emulator started here, and time each step");
  command->add_option("--records", demo->records, "Records the other device stored")
      ->capture_default_str()
      ->check(CLI::Range(6, 200'000));
  command->add_option("--latency-ms", demo->latencyMs, "Added to every request")
      ->capture_default_str()
      ->check(CLI::Range(0, 10'000));
  command->callback([&options, demo] { runDemo(options, *demo); });
}

}  // namespace wdc::cli
