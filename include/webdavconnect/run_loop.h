// A small per-thread event loop: tasks posted to a thread's RunLoop run on that thread, in order,
// while the thread runs its loop; delayed tasks run once their time has come. Time is measured
// and waited through the Env, so a VirtualEnv makes delays free in tests.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace wdc {

// Thread-safe: any thread may post to a loop; only its own thread runs it.
class RunLoop {
 public:
  using Task = std::function<void()>;

  // The calling thread's loop, created on first use. It lives while the thread or a holder of
  // the returned pointer does; tasks posted to a loop that never runs again never run.
  static std::shared_ptr<RunLoop> current();

  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // Runs `task` on this loop's thread at its next turn (never inside this call).
  void post(Task task);
  // Runs `task` once `delay` has passed (Env uptime) and the loop runs. Tasks with the same due
  // time run in posting order.
  void postAfter(std::chrono::nanoseconds delay, Task task);

  // Runs tasks on the calling thread until stop(). REQUIRES: called on this loop's thread.
  void run();
  // Runs tasks until `duration` (Env time) has passed or stop() is called. Returns how many ran.
  size_t runFor(std::chrono::nanoseconds duration);
  // Runs the tasks that are due now, without waiting. Returns how many ran.
  size_t runUntilIdle();
  // Makes run() / runFor() return after the task in progress. Any thread may call.
  void stop();

  // True when called on this loop's thread.
  [[nodiscard]] bool isCurrent() const;

 private:
  RunLoop();
  struct State;
  std::unique_ptr<State> state_;
};

// A thread that runs its own RunLoop until the object is destroyed (pending delayed tasks are
// then dropped). Thread-safe.
class LoopThread {
 public:
  LoopThread();
  ~LoopThread();  // stops the loop and joins the thread
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  [[nodiscard]] RunLoop& runLoop() const { return *loop_; }
  [[nodiscard]] std::thread::id id() const { return thread_.get_id(); }

 private:
  std::shared_ptr<RunLoop> loop_;
  std::thread thread_;
};

}  // namespace wdc
