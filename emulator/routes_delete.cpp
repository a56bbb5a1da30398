// Deletion: files/delete_v2, files/delete_batch, and the polls of both batch kinds
// (files/delete_batch/check, files/upload_session/finish_batch/check).
#include "emulator/route_helpers.h"

namespace wdc::emu {
namespace {

constexpr size_t kMaxBatchEntries = 1000;

struct DeleteArgs {
  std::string path;
  std::optional<std::string> parentRev;
};

DeleteArgs readDeleteArgs(ArgReader& args) {
  DeleteArgs result;
  result.path = readPath(args, "path", PathRules{.id = true});
  result.parentRev = args.optionalString("parent_rev");
  return result;
}

// Deletes one path; returns the removed entry's metadata or the DeleteError. REQUIRES: mutex.
std::pair<std::optional<Json>, Json> deleteOne(Emulator::Impl& impl, const DeleteArgs& args) {
  if (args.path.rfind("id:", 0) != 0 && !Store::isWellFormed(args.path)) {
    return {std::nullopt, nestedTag("path_lookup", "malformed_path")};
  }
  const StoredEntry* entry = resolve(impl, args.path);
  if (entry == nullptr) return {std::nullopt, nestedTag("path_lookup", "not_found")};
  if (args.parentRev && (entry->isFolder || entry->rev != *args.parentRev)) {
    Json error = tag("path_write");
    error["path_write"] = writeErrorJson(WriteFailure::kConflictFile);
    return {std::nullopt, std::move(error)};
  }
  const std::string display = entry->pathDisplay;
  Json metadata = entryJson(*entry, true);
  impl.store.remove(display);
  return {std::move(metadata), Json()};
}

Json runDeleteBatch(Emulator::Impl& impl, const Json& entries) {
  Json results = Json::array();
  for (const Json& item : entries) {
    ArgReader args(item, "entries");
    const DeleteArgs deleteArgs = readDeleteArgs(args);
    if (!args.ok()) {
      results.push_back(
          Json{{".tag", "failure"}, {"failure", nestedTag("path_lookup", "malformed_path")}});
      continue;
    }
    const FaultDecision fault = impl.faults.decide("files/delete_batch/entry", false);
    if (fault.fault && fault.fault->kind == FaultKind::kTooManyWriteOperations) {
      results.push_back(Json{{".tag", "failure"}, {"failure", tag("too_many_write_operations")}});
      continue;
    }
    if (fault.fault && fault.fault->kind == FaultKind::kTooManyFiles) {
      results.push_back(Json{{".tag", "failure"}, {"failure", tag("too_many_files")}});
      continue;
    }
    auto [metadata, error] = deleteOne(impl, deleteArgs);
    if (metadata) {
      results.push_back(Json{{".tag", "success"}, {"metadata", std::move(*metadata)}});
    } else {
      results.push_back(Json{{".tag", "failure"}, {"failure", std::move(error)}});
    }
  }
  return results;
}

// Dropbox runs a delete job whether or not anyone polls it, so by the time the account launches
// another one, a job whose client stopped polling (its poll failed, say) has long finished. Here
// jobs run when polled, so such a job is run now and lets go of the commit lock. A commit job of
// the upload routes still holding the lock is real contention and stays.
void finishAbandonedDeleteJob(Emulator::Impl& impl) {
  if (!impl.runningWriteJob) return;
  const auto it = impl.jobs.find(*impl.runningWriteJob);
  if (it == impl.jobs.end() || it->second.kind != BatchJob::kDelete) return;
  if (!it->second.result) it->second.result = runDeleteBatch(impl, it->second.arguments);
  impl.runningWriteJob.reset();
}

// A 429w rule on the pseudo-route "files/delete_batch/job" fails the job it hits.
bool deleteJobFails(Emulator::Impl& impl) {
  const FaultDecision fault = impl.faults.decide("files/delete_batch/job", false);
  return fault.fault && fault.fault->kind == FaultKind::kTooManyWriteOperations;
}

void pollJob(Emulator::Impl& impl, Exchange& exchange, const Json& arg, BatchJob::Kind kind) {
  ArgReader args(arg, "request body");
  const std::string jobId = args.string("async_job_id");
  if (args.ok() && jobId.empty()) args.fail("async_job_id: string is too short");
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::lock_guard lock(impl.mutex);
  const auto it = impl.jobs.find(jobId);
  if (it == impl.jobs.end() || it->second.kind != kind) {
    return exchange.replyRouteError(tag("invalid_async_job_id"));
  }
  BatchJob& job = it->second;
  if (!job.result) {
    if (job.pollsLeft > 0) {
      --job.pollsLeft;
      return exchange.replyJson(tag("in_progress"));
    }
    // The commit happens now, so other clients see the files only once the job is complete.
    if (kind == BatchJob::kDelete && deleteJobFails(impl)) {
      // A failed job is kept as its whole answer (an object); completed ones keep their entries.
      job.result = Json{{".tag", "failed"}, {"failed", tag("too_many_write_operations")}};
    } else {
      job.result = kind == BatchJob::kFinish ? runFinishBatch(impl, job.arguments)
                                             : runDeleteBatch(impl, job.arguments);
    }
    if (impl.runningWriteJob == jobId) impl.runningWriteJob.reset();
  }
  if (job.result->is_object()) return exchange.replyJson(*job.result);
  exchange.replyJson(Json{{".tag", "complete"}, {"entries", *job.result}});
}

}  // namespace

void handleDelete(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const DeleteArgs deleteArgs = readDeleteArgs(args);
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::lock_guard lock(impl.mutex);
  auto [metadata, error] = deleteOne(impl, deleteArgs);
  if (!metadata) return exchange.replyRouteError(error);
  exchange.replyJson(Json{{"metadata", std::move(*metadata)}});
}

void handleDeleteBatch(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const Json* entries = args.list("entries", true, kMaxBatchEntries);
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::lock_guard lock(impl.mutex);
  if (impl.options.deleteBatchCompletesAtOnce) {
    return exchange.replyJson(
        Json{{".tag", "complete"}, {"entries", runDeleteBatch(impl, *entries)}});
  }
  finishAbandonedDeleteJob(impl);
  if (impl.runningWriteJob) return replyWriteContention(exchange);
  const std::string jobId = impl.newJobId();
  impl.jobs[jobId] = BatchJob{BatchJob::kDelete, *entries, impl.batchCheckPolls, {}};
  impl.runningWriteJob = jobId;
  exchange.replyJson(Json{{".tag", "async_job_id"}, {"async_job_id", jobId}});
}

void handleDeleteBatchCheck(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  pollJob(impl, exchange, arg, BatchJob::kDelete);
}

void handleFinishBatchCheck(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  pollJob(impl, exchange, arg, BatchJob::kFinish);
}

}  // namespace wdc::emu
