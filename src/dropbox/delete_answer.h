// Waiting for a delete answer whose outcome the operation decides itself: unlike awaitAnswer
// (blocking_call.h), nothing is recorded on the connection, because a missing file is no failure
// for the single delete and the batch reports through its return value alone.
#pragma once

#include <memory>
#include <utility>

#include "dbx/request_error.h"
#include "dbx/task.h"
#include "platform/semaphore.h"
#include "webdavconnect/operation_queue.h"

namespace wdc::dropbox {

// Runs `handle(result, routeError, requestError)` on `queue` when the answer arrives and blocks
// until it has run. REQUIRES: not called on `queue`.
template <typename Result, typename RouteError, typename Handle>
void awaitDeleteAnswer(const std::shared_ptr<OperationQueue>& queue,
                       dbx::DBTask<Result, RouteError> task, Handle handle) {
  auto answered = std::make_shared<CountingSemaphore>(0);
  task.setResponseBlock(
      [answered, handle = std::move(handle)](const Result* result, const RouteError* routeError,
                                             const dbx::DBRequestError* requestError) mutable {
        handle(result, routeError, requestError);
        answered->signal();
      },
      queue);
  answered->wait();
}

}  // namespace wdc::dropbox
