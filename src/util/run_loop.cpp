// RunLoop: one queue of tasks ordered by (due time, posting order) under a mutex. The owning
// thread runs what is due and otherwise sleeps on a condition variable: without a deadline in a
// plain wait (no clock involved), with one through the Env so virtual time can carry it.
#include "webdavconnect/run_loop.h"

#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <optional>

#include "platform/env.h"

namespace wdc {

struct RunLoop::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::map<std::pair<std::chrono::nanoseconds, uint64_t>, Task> tasks;  // guarded by mutex
  uint64_t nextSequence = 0;                                            // guarded by mutex
  uint64_t generation = 0;  // bumped by every post and stop; guarded by mutex
  bool stopped = false;     // guarded by mutex
  std::thread::id owner;

  // Runs due tasks until idle (`wait` false), until `until` or until stopped.
  size_t runTasks(bool wait, std::optional<std::chrono::nanoseconds> until);
};

size_t RunLoop::State::runTasks(bool wait, std::optional<std::chrono::nanoseconds> until) {
  Env& env = Env::current();
  size_t ran = 0;
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopped) {
    const std::chrono::nanoseconds now = env.uptime();
    if (!tasks.empty() && tasks.begin()->first.first <= now) {
      Task task = std::move(tasks.begin()->second);
      tasks.erase(tasks.begin());
      lock.unlock();
      task();
      task = nullptr;  // release what it captured before taking the lock again
      ++ran;
      lock.lock();
      continue;
    }
    if (!wait || (until && now >= *until)) break;
    std::optional<std::chrono::nanoseconds> wakeAt = until;
    if (!tasks.empty() && (!wakeAt || tasks.begin()->first.first < *wakeAt)) {
      wakeAt = tasks.begin()->first.first;
    }
    const uint64_t seen = generation;
    if (!wakeAt) {
      this->wake.wait(lock, [&] { return stopped || generation != seen; });
    } else {
      env.waitFor(this->wake, lock, *wakeAt - now, [&] {
        return stopped || generation != seen || env.uptime() >= *wakeAt;
      });
    }
  }
  if (wait) stopped = false;  // a stop ends one run
  return ran;
}

RunLoop::RunLoop() : state_(std::make_unique<State>()) {
  state_->owner = std::this_thread::get_id();
}

RunLoop::~RunLoop() = default;

std::shared_ptr<RunLoop> RunLoop::current() {
  thread_local std::shared_ptr<RunLoop> loop;
  if (loop == nullptr) loop.reset(new RunLoop());
  return loop;
}

void RunLoop::post(Task task) { postAfter(std::chrono::nanoseconds::zero(), std::move(task)); }

void RunLoop::postAfter(std::chrono::nanoseconds delay, Task task) {
  if (delay < std::chrono::nanoseconds::zero()) delay = std::chrono::nanoseconds::zero();
  const std::chrono::nanoseconds due = saturatingAdd(Env::current().uptime(), delay);
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->tasks.emplace(std::make_pair(due, state_->nextSequence++), std::move(task));
    ++state_->generation;
  }
  state_->wake.notify_all();
}

void RunLoop::run() { state_->runTasks(true, std::nullopt); }

size_t RunLoop::runFor(std::chrono::nanoseconds duration) {
  return state_->runTasks(true, saturatingAdd(Env::current().uptime(), duration));
}

size_t RunLoop::runUntilIdle() { return state_->runTasks(false, std::nullopt); }

void RunLoop::stop() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stopped = true;
    ++state_->generation;
  }
  state_->wake.notify_all();
}

bool RunLoop::isCurrent() const { return state_->owner == std::this_thread::get_id(); }

LoopThread::LoopThread() {
  std::promise<std::shared_ptr<RunLoop>> started;
  std::future<std::shared_ptr<RunLoop>> loop = started.get_future();
  thread_ = std::thread([&started] {
    std::shared_ptr<RunLoop> own = RunLoop::current();
    started.set_value(own);
    own->run();
  });
  loop_ = loop.get();
}

LoopThread::~LoopThread() {
  loop_->stop();
  thread_.join();
}

}  // namespace wdc
