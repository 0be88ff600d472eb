// ZvLocker.cpp: the library's recursive, owner-tracking lock.
#include <ZvLocker.h>

#include <ZvSemaphore.h>

#include "WrapperCalls.h"

using zvkit_private::AcquireSemaphore;
using zvkit_private::AcquireShortHold;
using zvkit_private::CurrentThread;
using zvkit_private::ReleaseSemaphore;

// Ownership is published in the order owner, count, locked, the last with a
// release store; the recursion test loads locked with acquire before owner.
// So a thread that sees another thread's locked == true also sees that
// thread's owner, never its own stale identifier from an earlier hold.
//
// fCount is changed only by the owner while it holds the semaphore, so a
// plain load and store (relaxed atomics, for CountLock's sake) are enough.

ZvLocker::ZvLocker()
    : fCount(0), fLocked(false), fSem(ZvSemaphore::Create(1, "ZvLocker")), fOwner(0)
{
}

ZvLocker::~ZvLocker()
{
	Kill();
}

bool ZvLocker::Lock()
{
	const uint32 me = CurrentThread();
	if (fLocked.load(std::memory_order_acquire) && fOwner.load(std::memory_order_relaxed) == me) {
		fCount.store(fCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
		return true;
	}
	// A result of 2 (the 24.8-day time-out expired) is taken as success.
	if (AcquireShortHold(fSem.load(std::memory_order_relaxed)) == 0)
		return false;
	fOwner.store(me, std::memory_order_relaxed);
	fCount.store(1, std::memory_order_relaxed);
	fLocked.store(true, std::memory_order_release);
	return true;
}

int32 ZvLocker::LockWithTimeout(int32 timeout)
{
	const uint32 me = CurrentThread();
	if (fLocked.load(std::memory_order_acquire) && fOwner.load(std::memory_order_relaxed) == me) {
		fCount.store(fCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
		return 1;
	}
	const int32 result = AcquireSemaphore(fSem.load(std::memory_order_relaxed), timeout);
	if (result != 1)
		return result;
	fOwner.store(me, std::memory_order_relaxed);
	fCount.store(1, std::memory_order_relaxed);
	fLocked.store(true, std::memory_order_release);
	return 1;
}

void ZvLocker::Unlock()
{
	// Only the owner may unlock; anyone else is ignored without a word.
	const uint32 me = CurrentThread();
	if (!fLocked.load(std::memory_order_acquire) || fOwner.load(std::memory_order_relaxed) != me)
		return;
	const int32 depth = fCount.load(std::memory_order_relaxed) - 1;
	fCount.store(depth, std::memory_order_relaxed);
	if (depth <= 0) {
		fLocked.store(false, std::memory_order_release);
		ReleaseSemaphore(fSem.load(std::memory_order_relaxed));
	}
}

bool ZvLocker::IsLocked()
{
	return fLocked.load(std::memory_order_relaxed);
}

int32 ZvLocker::CountLock()
{
	return fCount.load(std::memory_order_relaxed);
}

void ZvLocker::Kill()
{
	const uint32 sem = fSem.load(std::memory_order_relaxed);
	if (sem != 0)
		ZvSemaphore::Delete(sem);
	fSem.store(0, std::memory_order_relaxed);
}
