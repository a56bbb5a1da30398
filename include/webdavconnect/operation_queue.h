// Executors that stand in for the host platform's operation queues: a serial queue (one worker,
// operations in order; the shared retry queue is one), a concurrent queue (a pool), and the
// process-wide main queue. Delayed work goes through the Env's timer, so VirtualEnv controls it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wdc {

// An executor. Implementations are thread-safe: any thread may add operations.
class OperationQueue {
 public:
  OperationQueue() = default;
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;
  virtual ~OperationQueue() = default;

  // Runs `operation` on one of this queue's threads, some time after this call returns.
  virtual void addOperation(std::function<void()> operation) = 0;
  // Blocks until every operation added before this call has finished.
  // REQUIRES: not called from one of this queue's own operations.
  virtual void waitUntilAllOperationsAreFinished() = 0;
  // True when the calling thread is one of this queue's workers.
  [[nodiscard]] virtual bool isCurrentQueue() const = 0;

  // Adds `operation` to this queue once `delay` has passed on the current Env's clock.
  // REQUIRES: the queue outlives the delay (the process-wide queues always do).
  void addOperationAfter(std::chrono::nanoseconds delay, std::function<void()> operation);
};

// One worker thread; operations run one at a time in the order added.
class SerialQueue final : public OperationQueue {
 public:
  explicit SerialQueue(std::string label);
  // Finishes every operation already added, then stops the worker.
  ~SerialQueue() override;

  void addOperation(std::function<void()> operation) override;
  void waitUntilAllOperationsAreFinished() override;
  [[nodiscard]] bool isCurrentQueue() const override;
  [[nodiscard]] const std::string& label() const { return label_; }

 private:
  void run();

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> pending_;
  bool running_ = false;
  bool stopping_ = false;
  std::thread worker_;
};

// A pool of `workers` threads; operations start in order but may run side by side.
class ConcurrentQueue final : public OperationQueue {
 public:
  ConcurrentQueue(std::string label, unsigned workers);
  ~ConcurrentQueue() override;

  void addOperation(std::function<void()> operation) override;
  void waitUntilAllOperationsAreFinished() override;
  [[nodiscard]] bool isCurrentQueue() const override;
  [[nodiscard]] const std::string& label() const { return label_; }

 private:
  void run();

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> pending_;
  unsigned active_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

// The process-wide serial main queue. Created on first use, never destroyed.
OperationQueue& mainQueue();

}  // namespace wdc
