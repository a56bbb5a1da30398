// The one way a Dropbox backend operation talks to the client: send one request, have its answer
// delivered on the connection's `queueToUse`, record the outcome there, and block the caller on a
// semaphore until it has. The wait has no time-out: the client always answers (a transport
// failure or a closed client is an answer too).
#pragma once

#include <memory>
#include <utility>

#include "dbx/request_error.h"
#include "dbx/task.h"
#include "dbx/user_client.h"
#include "platform/semaphore.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::dropbox {

// The authorized client at this moment, or null after recording on `connection` the failure a
// caller gets when no account is linked ("Dropbox" 401), so the operation fails instead of
// waiting for an answer that can never come.
[[nodiscard]] std::shared_ptr<dbx::DBUserClient> authorizedClientFor(WebDAVConnect& connection);

// Registers the handler of `task` on `connection.queueToUse` and waits until it has run:
// `store(result, routeError, extra...)` keeps what the operation needs (pointers are valid only
// during the call), then the request error becomes the connection's outcome
// (setAsyncErrorIfRequired). REQUIRES: not called on `queueToUse`.
template <typename Result, typename RouteError, typename... Extra, typename Store>
void awaitAnswer(WebDAVConnect& connection, dbx::DBTask<Result, RouteError, Extra...> task,
                 Store store) {
  // Shared with the handler: the handler may still be unwinding when the caller returns.
  auto answered = std::make_shared<CountingSemaphore>(0);
  task.setResponseBlock(
      [&connection, answered, store = std::move(store)](
          const Result* result, const RouteError* routeError,
          const dbx::DBRequestError* requestError, const Extra&... extra) mutable {
        store(result, routeError, extra...);
        connection.setAsyncErrorIfRequired(requestError);
        answered->signal();
      },
      connection.queueToUse);
  answered->wait();
}

}  // namespace wdc::dropbox
