// Running a callback later, on a given thread, or on a background thread. All three routes copy
// the callback into the scheduled work and end in fireBlockAfterDelay, which calls it once and
// releases it; a null callback is accepted everywhere and simply does nothing when it fires.
// Whatever the callback captures (a shared_ptr to its object, say) stays alive until it has run.
// Any thread may call these.
#pragma once

#include <functional>

#include "webdavconnect/run_loop.h"

namespace wdc {

using DeferredBlock = std::function<void()>;

// Schedules `block` on the calling thread's RunLoop after `delaySeconds` (negative or NaN count
// as 0). It runs only while that thread runs its loop, and never inside this call, even with a
// delay of 0.
void performBlock(DeferredBlock block, double delaySeconds);

// Runs `block` on the thread of `thread`. With `waitUntilDone`, blocks until it has run (when
// `thread` is the caller's own loop, it runs at once instead, since waiting would never end).
// An exception thrown by the callback reaches the waiting caller; without waiting, callbacks
// must not throw (it would leave the target thread's loop).
// REQUIRES for waiting: the target loop is running or will run.
void performBlock(DeferredBlock block, RunLoop& thread, bool waitUntilDone);

// Runs `block` on a new detached background thread.
void performBlockInBackground(DeferredBlock block);

// Calls `block` once; does nothing when it is null.
void fireBlockAfterDelay(const DeferredBlock& block);

}  // namespace wdc
