// A request in flight and the one place its answer goes. A route call sends its request at once
// and returns a task; `setResponseBlock` names the handler and the queue it runs on. The handler
// runs exactly once, on that queue, with (result, route error, request error): exactly one of the
// three is non-null, and the pointers are valid only during the call. Download tasks pass one
// more argument: the destination file, or the downloaded bytes.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <filesystem>
#include <utility>

#include "dbx/request_error.h"
#include "webdavconnect/operation_queue.h"

namespace wdc::dbx {

namespace detail {

// What a request ended with. Exactly one of the three optionals is set.
template <typename Result, typename RouteError, typename... Extra>
struct Outcome {
  std::optional<Result> result;
  std::optional<RouteError> routeError;
  std::optional<DBRequestError> requestError;
  std::tuple<Extra...> extra;
};

// Shared between the task handle the caller holds and the request in the client. Whichever of
// "answer arrived" and "handler registered" happens second hands the answer to the queue.
template <typename Result, typename RouteError, typename... Extra>
class TaskState {
 public:
  using Block = std::function<void(const Result*, const RouteError*, const DBRequestError*,
                                   const Extra&...)>;
  using OutcomeT = Outcome<Result, RouteError, Extra...>;

  void setBlock(Block block, std::shared_ptr<OperationQueue> queue) {
    std::unique_lock lock(mutex_);
    if (block_ || delivered_) return;  // one handler per task
    block_ = std::move(block);
    queue_ = std::move(queue);
    if (outcome_) deliverLocked(lock);
  }
  void complete(OutcomeT outcome) {
    std::unique_lock lock(mutex_);
    if (outcome_ || delivered_) return;  // first answer wins (a cancel racing a finish)
    outcome_ = std::make_shared<OutcomeT>(std::move(outcome));
    if (block_) deliverLocked(lock);
  }
  void setCanceller(std::function<void()> canceller) {
    std::lock_guard lock(mutex_);
    canceller_ = std::move(canceller);
  }
  void cancel() {
    std::function<void()> canceller;
    {
      std::lock_guard lock(mutex_);
      canceller = canceller_;
    }
    if (canceller) canceller();
  }

 private:
  void deliverLocked(std::unique_lock<std::mutex>& lock) {
    delivered_ = true;
    auto block = std::move(block_);
    auto outcome = std::move(outcome_);
    auto queue = std::move(queue_);
    canceller_ = nullptr;
    lock.unlock();
    auto run = [block = std::move(block), outcome]() {
      std::apply(
          [&](const Extra&... extra) {
            block(outcome->result ? &*outcome->result : nullptr,
                  outcome->routeError ? &*outcome->routeError : nullptr,
                  outcome->requestError ? &*outcome->requestError : nullptr, extra...);
          },
          outcome->extra);
    };
    if (queue) {
      queue->addOperation(std::move(run));
    } else {
      mainQueue().addOperation(std::move(run));
    }
  }

  std::mutex mutex_;
  Block block_;
  std::shared_ptr<OperationQueue> queue_;
  std::shared_ptr<OutcomeT> outcome_;
  std::function<void()> canceller_;
  bool delivered_ = false;
};

}  // namespace detail

// Handle of one request. Cheap to copy; copies share the request. Dropping every handle does not
// cancel the request: its handler still runs if one was set.
template <typename Result, typename RouteError, typename... Extra>
class DBTask {
 public:
  using State = detail::TaskState<Result, RouteError, Extra...>;
  using ResponseBlock = typename State::Block;

  explicit DBTask(std::shared_ptr<State> state) : state_(std::move(state)) {}

  // Registers the handler. It runs on `queue`, or on the process-wide main queue when `queue` is
  // null; the queue is kept alive until then. Only the first call counts.
  DBTask& setResponseBlock(ResponseBlock block, std::shared_ptr<OperationQueue> queue = nullptr) {
    state_->setBlock(std::move(block), std::move(queue));
    return *this;
  }
  // Stops the request if it is still running; the handler then gets a request error with the
  // underlying code kURLErrorCancelled (-999).
  void cancel() { state_->cancel(); }

 private:
  std::shared_ptr<State> state_;
};

// RPC and upload routes: (result, route error, request error).
template <typename Result, typename RouteError>
using DBRpcTask = DBTask<Result, RouteError>;
template <typename Result, typename RouteError>
using DBUploadTask = DBTask<Result, RouteError>;
// Download to a file: a fourth argument names the destination (written only on success).
template <typename Result, typename RouteError>
using DBDownloadUrlTask = DBTask<Result, RouteError, std::filesystem::path>;
// Download into memory: a fourth argument holds the bytes (empty unless successful).
template <typename Result, typename RouteError>
using DBDownloadDataTask = DBTask<Result, RouteError, std::string>;

}  // namespace wdc::dbx
