// The emulator's shared state, seen by the route handlers and the HTTP listener.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "emulator/emulator.h"
#include "emulator/fault_injector.h"
#include "emulator/store.h"
#include "emulator/wire.h"

namespace wdc {
class Env;
}

namespace wdc::emu {

class Listener;

// A list_folder position: what was asked, which entries of the first listing are still to be
// paged out, and the journal position changes are counted from. Immutable once issued.
struct CursorState {
  std::string folderLower;
  bool recursive = false;
  bool includeDeleted = false;
  uint64_t limit = 0;                                       // 0: everything in one page
  std::shared_ptr<const std::vector<std::string>> pending;  // lower-cased paths
  size_t offset = 0;
  uint64_t sequence = 0;
};

struct UploadSession {
  std::string data;
  bool closed = false;
  bool concurrent = false;
};

// An asynchronous batch (finish_batch or delete_batch): answered in_progress `pollsLeft` more
// times, then run and answered complete.
struct BatchJob {
  enum Kind { kFinish, kDelete } kind = kFinish;
  Json arguments;  // the entries as the launch call gave them
  uint32_t pollsLeft = 0;
  std::optional<Json> result;  // the complete answer, once run
};

struct Emulator::Impl {
  explicit Impl(EmulatorOptions emulatorOptions);
  ~Impl();

  Env& env() const;
  TimePoint now() const;

  // Runs one request: counting, faults, latency, auth, argument decoding and the route, then
  // tells the departure observer. Returns the transport fault the listener must apply (kDrop or
  // kTruncate), if any.
  std::optional<FaultKind> serve(Exchange& exchange);
  // serve() without the departure notice.
  std::optional<FaultKind> answer(Exchange& exchange);
  // Waits `ms` milliseconds, or less when the emulator stops.
  void pause(uint32_t ms);

  // Checks the bearer token; answers 400/401 itself and returns false when it is not good.
  bool checkUserAuth(Exchange& exchange);
  bool checkAppAuth(Exchange& exchange);

  std::string newCursor(CursorState state);  // REQUIRES: mutex held
  std::string newJobId();                    // REQUIRES: mutex held

  const EmulatorOptions options;
  FaultInjector faults;
  std::unique_ptr<Listener> listener;
  std::atomic<bool> stopping{false};
  std::mutex pauseMutex;
  std::condition_variable pauseCv;

  // Everything below is guarded by `mutex`.
  mutable std::mutex mutex;
  Store store;
  std::map<std::string, uint64_t, std::less<>> counts;
  Emulator::ArrivalObserver arrivalObserver;
  Emulator::DepartureObserver departureObserver;
  uint64_t total = 0;
  // Issued access tokens and when they expire (Env uptime).
  std::map<std::string, std::chrono::nanoseconds, std::less<>> issuedTokens;
  std::set<std::string, std::less<>> refreshTokens;
  // Codes the authorize page handed out and not yet exchanged: code -> {client id, challenge}.
  std::map<std::string, std::pair<std::string, std::string>, std::less<>> authorizationCodes;
  std::map<std::string, std::string, std::less<>> oauth1Tokens;  // token -> secret
  std::set<std::string, std::less<>> migratedTokens;
  bool configuredTokenExpired = false;
  std::chrono::seconds accessTokenLifetime;
  uint32_t batchCheckPolls;
  uint64_t zipMaxEntries;
  uint64_t zipMaxBytes;
  uint64_t tokenCounter = 0;
  std::map<std::string, CursorState, std::less<>> cursors;
  // Lower-cased paths whose listing entries leave client_modified out.
  std::set<std::string, std::less<>> listedWithoutClientModified;
  uint64_t cursorCounter = 0;
  std::map<std::string, UploadSession, std::less<>> sessions;
  uint64_t sessionCounter = 0;
  std::map<std::string, BatchJob, std::less<>> jobs;
  uint64_t jobCounter = 0;
  // The asynchronous write job holding the account's commit lock, if any.
  std::optional<std::string> runningWriteJob;
};

// The route handlers. Each decodes its argument with ArgReader and answers through `exchange`.
// `arg` is the parsed argument (null for Void).
using RouteHandler = void (*)(Emulator::Impl& impl, Exchange& exchange, const Json& arg);

// kPage: a GET with query parameters (the authorize page), answered as text.
enum class RouteStyle { kRpc, kUpload, kDownload, kForm, kPage };
enum class RouteAuth { kUser, kApp, kNone };

struct RouteEntry {
  std::string_view name;
  RouteStyle style;
  RouteAuth auth;
  bool voidArgument;
  RouteHandler handler;
};

// The route of that name, or nullptr.
const RouteEntry* findRoute(std::string_view name);

// Route handlers, one family per file.
void handleGetCurrentAccount(Emulator::Impl&, Exchange&, const Json&);
void handleOAuth2Token(Emulator::Impl&, Exchange&, const Json&);
void handleOAuth2Authorize(Emulator::Impl&, Exchange&, const Json&);
void handleListFolderLongpoll(Emulator::Impl&, Exchange&, const Json&);
void handleTokenFromOAuth1(Emulator::Impl&, Exchange&, const Json&);
void handleListFolder(Emulator::Impl&, Exchange&, const Json&);
void handleListFolderContinue(Emulator::Impl&, Exchange&, const Json&);
void handleSearch(Emulator::Impl&, Exchange&, const Json&);
void handleSearchV2(Emulator::Impl&, Exchange&, const Json&);
void handleSearchContinueV2(Emulator::Impl&, Exchange&, const Json&);
void handleCreateFolder(Emulator::Impl&, Exchange&, const Json&);
void handleUpload(Emulator::Impl&, Exchange&, const Json&);
void handleUploadSessionStart(Emulator::Impl&, Exchange&, const Json&);
void handleUploadSessionAppend(Emulator::Impl&, Exchange&, const Json&);
void handleFinishBatch(Emulator::Impl&, Exchange&, const Json&);
void handleFinishBatchCheck(Emulator::Impl&, Exchange&, const Json&);
void handleFinishBatchV2(Emulator::Impl&, Exchange&, const Json&);
void handleDownload(Emulator::Impl&, Exchange&, const Json&);
void handleDownloadZip(Emulator::Impl&, Exchange&, const Json&);
void handleDelete(Emulator::Impl&, Exchange&, const Json&);
void handleDeleteBatch(Emulator::Impl&, Exchange&, const Json&);
void handleDeleteBatchCheck(Emulator::Impl&, Exchange&, const Json&);

// Commits finish_batch entries in order; the entries of UploadSessionFinishBatchResult.
// REQUIRES: impl.mutex held.
Json runFinishBatch(Emulator::Impl& impl, const Json& entries);

}  // namespace wdc::emu
