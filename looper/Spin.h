// Spin.h: brief polling before a blocking wait, for the looper's hot paths.
//
// A looper's thread and its posters hand each message over through a few
// semaphores. When the other side is only microseconds away, sleeping in
// the kernel and being woken costs far more than the wait itself: each
// sleep makes the other side's release a system call. These helpers poll
// the semaphore (a time-out of 0 never enters the kernel) a bounded number
// of times, pausing the processor between polls, and only then wait.
// Results are those of the call they stand for.
#ifndef ZV_LOOPER_SPIN_H
#define ZV_LOOPER_SPIN_H

#include <SupportDefs.h>

class ZvLocker;

namespace zvlooper {

// As ZvSemaphore::Acquire(sem, -1): 1 acquired, 2 the long time-out
// expired, 0 the semaphore is gone.
int32 AcquireSoon(uint32 sem);

// As locker.Lock().
bool LockSoon(ZvLocker& locker);

} // namespace zvlooper

#endif // ZV_LOOPER_SPIN_H
