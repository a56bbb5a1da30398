#include "webdavconnect/operation_queue.h"

#include <algorithm>

#include "platform/env.h"

namespace wdc {
namespace {
// Which queue's worker the current thread is, so isCurrentQueue() needs no lock.
thread_local const OperationQueue* tCurrentQueue = nullptr;
}  // namespace

void OperationQueue::addOperationAfter(std::chrono::nanoseconds delay,
                                       std::function<void()> operation) {
  if (delay <= std::chrono::nanoseconds::zero()) {
    addOperation(std::move(operation));
    return;
  }
  Env::current().scheduleAfter(
      delay, [this, op = std::move(operation)]() mutable { addOperation(std::move(op)); });
}

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
  worker_ = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
}

void SerialQueue::addOperation(std::function<void()> operation) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(std::move(operation));
  }
  wake_.notify_one();
}

void SerialQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return pending_.empty() && !running_; });
}

bool SerialQueue::isCurrentQueue() const { return tCurrentQueue == this; }

void SerialQueue::run() {
  tCurrentQueue = this;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
    if (pending_.empty()) return;  // stopping and drained
    auto operation = std::move(pending_.front());
    pending_.pop_front();
    running_ = true;
    lock.unlock();
    if (operation) operation();
    lock.lock();
    running_ = false;
    if (pending_.empty()) idle_.notify_all();
  }
}

ConcurrentQueue::ConcurrentQueue(std::string label, unsigned workers) : label_(std::move(label)) {
  workers = std::max(1u, workers);
  for (unsigned i = 0; i < workers; ++i) workers_.emplace_back([this] { run(); });
}

ConcurrentQueue::~ConcurrentQueue() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& worker : workers_) worker.join();
}

void ConcurrentQueue::addOperation(std::function<void()> operation) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(std::move(operation));
  }
  wake_.notify_one();
}

void ConcurrentQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return pending_.empty() && active_ == 0; });
}

bool ConcurrentQueue::isCurrentQueue() const { return tCurrentQueue == this; }

void ConcurrentQueue::run() {
  tCurrentQueue = this;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
    if (pending_.empty()) return;
    auto operation = std::move(pending_.front());
    pending_.pop_front();
    ++active_;
    lock.unlock();
    if (operation) operation();
    lock.lock();
    --active_;
    if (pending_.empty() && active_ == 0) idle_.notify_all();
  }
}

OperationQueue& mainQueue() {
  static SerialQueue* queue = new SerialQueue("main");
  return *queue;
}

}  // namespace wdc
