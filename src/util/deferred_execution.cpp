#include "webdavconnect/deferred_execution.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <future>
#include <thread>

#include "platform/env.h"

namespace wdc {

void fireBlockAfterDelay(const DeferredBlock& block) {
  if (block) block();
}

void performBlock(DeferredBlock block, double delaySeconds) {
  if (!(delaySeconds > 0)) delaySeconds = 0;  // NaN too
  // A delay past a few decades is "never" in practice; the cap keeps the nanosecond count finite.
  delaySeconds = std::min(delaySeconds, 1e9);
  RunLoop::current()->postAfter(fromSeconds(delaySeconds),
                                [block = std::move(block)] { fireBlockAfterDelay(block); });
}

void performBlock(DeferredBlock block, RunLoop& thread, bool waitUntilDone) {
  if (!waitUntilDone) {
    thread.post([block = std::move(block)] { fireBlockAfterDelay(block); });
    return;
  }
  if (thread.isCurrent()) {
    // Waiting for our own loop to get to it would never end.
    fireBlockAfterDelay(block);
    return;
  }
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  thread.post([&done, block = std::move(block)] {
    try {
      fireBlockAfterDelay(block);
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();  // hands a callback's exception to the waiting caller
}

void performBlockInBackground(DeferredBlock block) {
  std::thread([block = std::move(block)] { fireBlockAfterDelay(block); }).detach();
}

}  // namespace wdc
