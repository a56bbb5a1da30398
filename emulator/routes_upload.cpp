// Writes: files/upload, files/create_folder_v2, upload sessions (start, append_v2) and their
// batch commits (finish_batch with finish_batch/check, and the synchronous finish_batch_v2).
#include "emulator/route_helpers.h"
#include "platform/env.h"

namespace wdc::emu {
namespace {

constexpr size_t kMaxRequestBytes = 150 * 1024 * 1024;
constexpr size_t kMaxBatchEntries = 1000;

// Reads the CommitInfo fields shared by upload and the finish entries.
struct Commit {
  std::string path;
  WriteMode mode;
  std::optional<TimePoint> clientModified;
};

Commit readCommit(ArgReader& args) {
  Commit commit;
  commit.path = readPath(args, "path", PathRules{.id = true});
  commit.mode = readWriteMode(args);
  args.boolean("mute", false);
  if (const std::optional<std::string> modified = args.optionalString("client_modified")) {
    commit.clientModified = parseTimestamp(*modified);
    if (!commit.clientModified) {
      args.fail("client_modified: time data '" + *modified +
                "' does not match format '%Y-%m-%dT%H:%M:%SZ'");
    }
  }
  return commit;
}

// An id: path writes to wherever that entry lives now.
std::string writeTarget(const Emulator::Impl& impl, const std::string& path) {
  if (path.rfind("id:", 0) != 0) return path;
  const StoredEntry* entry = impl.store.findById(path);
  return entry ? entry->pathDisplay : std::string();
}

// Runs one finish entry; returns the entry of UploadSessionFinishBatchResult. REQUIRES: mutex.
Json finishOne(Emulator::Impl& impl, const Json& item) {
  ArgReader args(item, "entries");
  const Json* cursorJson = args.object("cursor", true);
  const Json* commitJson = args.object("commit", true);
  std::string sessionId;
  uint64_t offset = 0;
  Commit commit;
  if (cursorJson && commitJson) {
    ArgReader cursorArgs(*cursorJson, "cursor");
    sessionId = cursorArgs.string("session_id");
    offset = cursorArgs.requiredNumber("offset", 0, UINT64_MAX);
    ArgReader commitArgs(*commitJson, "commit");
    commit = readCommit(commitArgs);
    if (!cursorArgs.ok()) args.fail(cursorArgs.problem());
    if (!commitArgs.ok()) args.fail(commitArgs.problem());
  }
  auto failure = [](Json error) {
    return Json{{".tag", "failure"}, {"failure", std::move(error)}};
  };
  if (!args.ok()) return failure(nestedTag("lookup_failed", "not_found"));
  const FaultDecision fault = impl.faults.decide("files/upload_session/finish_batch/entry", false);
  if (fault.fault && fault.fault->kind == FaultKind::kTooManyWriteOperations) {
    // The session survives, so the client can commit the file again.
    return failure(tag("too_many_write_operations"));
  }
  const auto session = impl.sessions.find(sessionId);
  if (session == impl.sessions.end()) return failure(nestedTag("lookup_failed", "not_found"));
  if (offset != session->second.data.size()) {
    Json offsetError{{".tag", "incorrect_offset"}, {"correct_offset", session->second.data.size()}};
    return failure(Json{{".tag", "lookup_failed"}, {"lookup_failed", offsetError}});
  }
  if (!session->second.closed) return failure(nestedTag("lookup_failed", "not_closed"));
  const std::string target = writeTarget(impl, commit.path);
  auto contents = std::make_shared<const std::string>(std::move(session->second.data));
  impl.sessions.erase(session);
  const WriteOutcome outcome = impl.store.writeFile(target, std::move(contents),
                                                    commit.clientModified, commit.mode, impl.now());
  if (outcome.entry == nullptr) {
    Json error = tag("path");
    error["path"] = writeErrorJson(outcome.failure);
    return failure(std::move(error));
  }
  Json success = entryJson(*outcome.entry, false);
  success[".tag"] = "success";
  return success;
}

// Validates a finish_batch argument; answers 400 and returns nullptr when it is not one.
const Json* readFinishEntries(Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const Json* entries = args.list("entries", true, kMaxBatchEntries);
  if (!args.ok()) {
    exchange.replyBadInput(args.problem());
    return nullptr;
  }
  return entries;
}

// Answers the route error an uploaded body earns (too large, or not matching the content hash the
// client sent) and says whether it did.
bool refusedBody(Exchange& exchange, const std::optional<std::string>& hash) {
  if (exchange.body.size() > kMaxRequestBytes) {
    exchange.replyRouteError(tag("payload_too_large"));
    return true;
  }
  if (hash && *hash != Store::contentHash(exchange.body)) {
    exchange.replyRouteError(tag("content_hash_mismatch"));
    return true;
  }
  return false;
}

}  // namespace

Json runFinishBatch(Emulator::Impl& impl, const Json& entries) {
  Json results = Json::array();
  for (const Json& item : entries) results.push_back(finishOne(impl, item));
  return results;
}

void handleUpload(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "HTTP header \"Dropbox-API-Arg\"");
  const Commit commit = readCommit(args);
  const std::optional<std::string> hash = args.optionalString("content_hash");
  if (args.ok() && hash && hash->size() != 64) args.fail("content_hash: must be 64 characters");
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  if (refusedBody(exchange, hash)) return;
  auto contents = std::make_shared<const std::string>(std::move(exchange.body));
  std::lock_guard lock(impl.mutex);
  const WriteOutcome outcome = impl.store.writeFile(writeTarget(impl, commit.path), contents,
                                                    commit.clientModified, commit.mode, impl.now());
  if (outcome.entry == nullptr) {
    const std::string sessionId =
        "pid_upload_session:AAEmuUpload" + std::to_string(++impl.sessionCounter);
    return exchange.replyRouteError(Json{{".tag", "path"},
                                         {"reason", writeErrorJson(outcome.failure)},
                                         {"upload_session_id", sessionId}});
  }
  exchange.replyJson(entryJson(*outcome.entry, false));
}

void handleCreateFolder(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string path = readPath(args, "path", PathRules{});
  const bool autorename = args.boolean("autorename", false);
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::lock_guard lock(impl.mutex);
  const WriteOutcome outcome = impl.store.createFolder(path, autorename, impl.now());
  if (outcome.entry == nullptr) {
    Json error = tag("path");
    error["path"] = writeErrorJson(outcome.failure);
    return exchange.replyRouteError(error);
  }
  exchange.replyJson(Json{{"metadata", entryJson(*outcome.entry, false)}});
}

void handleUploadSessionStart(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "HTTP header \"Dropbox-API-Arg\"");
  const bool close = args.boolean("close", false);
  const std::optional<std::string> type = args.unionTag("session_type");
  const std::optional<std::string> hash = args.optionalString("content_hash");
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  if (refusedBody(exchange, hash)) return;
  const bool concurrent = type && *type == "concurrent";
  if (concurrent && !exchange.body.empty()) {
    return exchange.replyRouteError(tag("concurrent_session_data_not_allowed"));
  }
  if (concurrent && close) {
    return exchange.replyRouteError(tag("concurrent_session_close_not_allowed"));
  }
  std::lock_guard lock(impl.mutex);
  const std::string sessionId =
      "pid_upload_session:AAEmuSession" + std::to_string(++impl.sessionCounter);
  impl.sessions[sessionId] = UploadSession{std::move(exchange.body), close, concurrent};
  exchange.replyJson(Json{{"session_id", sessionId}});
}

void handleUploadSessionAppend(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "HTTP header \"Dropbox-API-Arg\"");
  const Json* cursor = args.object("cursor", true);
  std::string sessionId;
  uint64_t offset = 0;
  if (cursor) {
    ArgReader cursorArgs(*cursor, "HTTP header \"Dropbox-API-Arg\": cursor");
    sessionId = cursorArgs.string("session_id");
    offset = cursorArgs.requiredNumber("offset", 0, UINT64_MAX);
    if (!cursorArgs.ok()) {
      return exchange.replyBadInput(cursorArgs.problem());
    }
  }
  const bool close = args.boolean("close", false);
  const std::optional<std::string> hash = args.optionalString("content_hash");
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  if (refusedBody(exchange, hash)) return;
  std::lock_guard lock(impl.mutex);
  const auto session = impl.sessions.find(sessionId);
  if (session == impl.sessions.end()) return exchange.replyRouteError(tag("not_found"));
  if (session->second.closed) return exchange.replyRouteError(tag("closed"));
  if (offset != session->second.data.size()) {
    return exchange.replyRouteError(
        Json{{".tag", "incorrect_offset"}, {"correct_offset", session->second.data.size()}});
  }
  session->second.data += exchange.body;
  session->second.closed = close;
  exchange.replyJson(nullptr);
}

void handleFinishBatch(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  const Json* entries = readFinishEntries(exchange, arg);
  if (entries == nullptr) return;
  std::lock_guard lock(impl.mutex);
  // One commit at a time per account: a second one while a job runs is write contention.
  if (impl.runningWriteJob) return replyWriteContention(exchange);
  const std::string jobId = impl.newJobId();
  impl.jobs[jobId] = BatchJob{BatchJob::kFinish, *entries, impl.batchCheckPolls, {}};
  impl.runningWriteJob = jobId;
  exchange.replyJson(Json{{".tag", "async_job_id"}, {"async_job_id", jobId}});
}

void handleFinishBatchV2(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  const Json* entries = readFinishEntries(exchange, arg);
  if (entries == nullptr) return;
  std::lock_guard lock(impl.mutex);
  if (impl.runningWriteJob) return replyWriteContention(exchange);
  exchange.replyJson(Json{{"entries", runFinishBatch(impl, *entries)}});
}

}  // namespace wdc::emu
