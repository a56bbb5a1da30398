// The network pass of the delta listing: files/list_folder of the whole app folder, then
// list_folder/continue while the server has more, every entry appended to the connection's cache.
//
// A page's outcome is not the usual blocking call's: a reset answer to list_folder/continue is
// not a failure but the signal to start over once from scratch, so the page handler records the
// outcome itself instead of going through dropbox::awaitAnswer.
#include <fmt/format.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "dbx/route_errors.h"
#include "dbx/route_types.h"
#include "dbx/routes.h"
#include "dropbox/blocking_call.h"
#include "platform/logger.h"
#include "platform/semaphore.h"

namespace wdc {
namespace {

using dbx::DBFILESListFolderResult;

constexpr uint32_t kPageLimit = 1000;
constexpr int kRouteErrorStatus = 409;

std::string textOr(const std::optional<std::string>& text) { return text.value_or("(null)"); }

// Our client hands a route error over without a request error, while the server answered it
// with HTTP 409. Recording it as that 409 makes the page fail; recording nothing would count it
// as a success and, after a page with more to come, ask for the same failing page for ever.
template <typename RouteError>
dbx::DBRequestError asRequestError(const RouteError& routeError) {
  dbx::DBRequestError error;
  error.kind = dbx::DBRequestError::Kind::kHttp;
  error.statusCode = kRouteErrorStatus;
  error.errorContent = routeError.description();
  error.message = "route error " + routeError.description();
  return error;
}

// Sends nothing itself: registers `receive` as the handler of `task` on `queue` and blocks until
// it has run. No time-out: the client always answers.
template <typename RouteError, typename Receive>
void awaitPage(dbx::DBRpcTask<DBFILESListFolderResult, RouteError> task,
               const std::shared_ptr<OperationQueue>& queue, Receive receive) {
  auto answered = std::make_shared<CountingSemaphore>(0);
  task.setResponseBlock(
      [answered, receive](const DBFILESListFolderResult* result, const RouteError* routeError,
                          const dbx::DBRequestError* requestError) mutable {
        receive(result, routeError, requestError);
        answered->signal();
      },
      queue);
  answered->wait();
}

}  // namespace

void WebDAVConnect::fetchDeltaPages(ErrorOut error, const std::optional<std::string>& usingCursor) {
  // Runs on `queueToUse`; the caller reads what it wrote after the semaphore.
  auto receive = [this](const DBFILESListFolderResult* result, const auto* routeError,
                        const dbx::DBRequestError* requestError) {
    using RouteError = std::remove_cv_t<std::remove_pointer_t<decltype(routeError)>>;
    if (result != nullptr) {
      if (!result->entries.empty()) {
        log::debug(
            fmt::format("[DROPBOX] Delta returned changed entries: {}", result->entries.size()));
        arrDropboxDeltaTuples->insert(arrDropboxDeltaTuples->end(), result->entries.begin(),
                                       result->entries.end());
      } else {
        log::debug("[DROPBOX] Delta changes ZERO");
      }
      dropboxDeltaCursor = result->cursor;
      hasMoreDeltaChanges = result->hasMore;
      log::debug(fmt::format(
          "[DROPBOX] Delta loaded, has more changes [{:d}] Should reset [{:d}] New Cursor [{}] ",
          hasMoreDeltaChanges ? 1 : 0, shouldResetLocalData ? 1 : 0, textOr(dropboxDeltaCursor)));
    } else {
      log::debug(fmt::format("[DROPBOX] Delta - No Folder Result obtained, error? {}, {}",
                             routeError ? routeError->description() : "(null)",
                             requestError ? requestError->description() : "(null)"));
    }
    std::optional<dbx::DBRequestError> routeFailure;
    if (routeError != nullptr && requestError == nullptr) {
      routeFailure = asRequestError(*routeError);
    }
    const dbx::DBRequestError* outcome = routeFailure ? &*routeFailure : requestError;
    if constexpr (std::is_same_v<RouteError, dbx::DBFILESListFolderContinueError>) {
      if (routeError != nullptr && !shouldResetLocalData) {
        shouldResetLocalData = routeError->isReset();
        // A reset leaves the page's outcome as it was: it is not a failure.
        if (!shouldResetLocalData) setAsyncErrorIfRequired(outcome);
        return;
      }
    }
    setAsyncErrorIfRequired(outcome);
  };

  const bool callerGaveCursor = usingCursor.has_value() && !usingCursor->empty();
  std::optional<std::string> pageCursor = usingCursor;
  bool resetHandled = false;
  for (;;) {
    lastAsyncError.reset();
    if (!pageCursor || pageCursor->empty()) {
      log::debug("[DROPBOX] Delta No previous cursor...");
      dbx::DBFILESListFolderArg arg;
      arg.path = "";  // the whole app folder, whatever folder the caller asked about
      arg.recursive = true;
      arg.includeMediaInfo = false;
      arg.includeDeleted = shouldResetLocalData && callerGaveCursor;
      arg.includeMountedFolders = false;
      arg.limit = kPageLimit;
      arg.includeNonDownloadableFiles = false;
      if (auto client = dropbox::authorizedClientFor(*this)) {
        awaitPage(client->filesRoutes().listFolder(arg), queueToUse, receive);
      }
    } else {
      log::debug(fmt::format("[DROPBOX] Delta using cursor: {}", *pageCursor));
      if (auto client = dropbox::authorizedClientFor(*this)) {
        awaitPage(client->filesRoutes().listFolderContinue(*pageCursor), queueToUse, receive);
      }
    }
    if (checkIfRequestFailed(error)) return;

    std::optional<std::string> nextCursor = dropboxDeltaCursor ? dropboxDeltaCursor : pageCursor;
    const bool mayStop = resetHandled || !shouldResetLocalData;
    if (shouldResetLocalData && !resetHandled) {
      // The server dropped our position: start over from scratch, once. What was already cached
      // stays cached.
      shouldResetLocalData = false;
      resetHandled = true;
      nextCursor = "";
    }
    if (asyncCallWasSuccessful && hasMoreDeltaChanges && !dropboxDeltaCursor) {
      log::error("[DROPBOX] Delta has more changes to send but cursor is nil!!");
    } else {
      log::debug(fmt::format(
          "[DROPBOX] delta ended, successful call [{:d}] more changes [{:d}] reset [{:d}] cursor "
          "[{}]",
          asyncCallWasSuccessful ? 1 : 0, hasMoreDeltaChanges ? 1 : 0,
          shouldResetLocalData ? 1 : 0, textOr(dropboxDeltaCursor)));
    }
    pageCursor = std::move(nextCursor);
    if (!mayStop) continue;
    if (asyncCallWasSuccessful && hasMoreDeltaChanges && pageCursor && !pageCursor->empty()) {
      continue;
    }
    return;
  }
}

}  // namespace wdc
