// ZvLocker.cpp: the library's recursive, owner-tracking lock.
#include <ZvLocker.h>

#include <ZvSemaphore.h>
#include <ZvThread.h>

// Ownership is published in the order owner, count, locked, the last with a
// release store; the recursion test loads locked with acquire before owner.
// So a thread that sees another thread's locked == true also sees that
// thread's owner, never its own stale identifier from an earlier hold.

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
	const uint32 me = ZvThread::CurrentID();
	if (fLocked.load(std::memory_order_acquire) && fOwner.load(std::memory_order_relaxed) == me) {
		fCount.fetch_add(1, std::memory_order_relaxed);
		return true;
	}
	// A result of 2 (the 24.8-day time-out expired) is taken as success.
	if (ZvSemaphore::Acquire(fSem.load(std::memory_order_relaxed), -1) == 0)
		return false;
	fOwner.store(me, std::memory_order_relaxed);
	fCount.store(1, std::memory_order_relaxed);
	fLocked.store(true, std::memory_order_release);
	return true;
}

int32 ZvLocker::LockWithTimeout(int32 timeout)
{
	const uint32 me = ZvThread::CurrentID();
	if (fLocked.load(std::memory_order_acquire) && fOwner.load(std::memory_order_relaxed) == me) {
		fCount.fetch_add(1, std::memory_order_relaxed);
		return 1;
	}
	const int32 result = ZvSemaphore::Acquire(fSem.load(std::memory_order_relaxed), timeout);
	if (result != 1)
		return result;
	fOwner.store(me, std::memory_order_relaxed);
	fCount.store(1, std::memory_order_relaxed);
	fLocked.store(true, std::memory_order_release);
	return 1;
}

void ZvLocker::Unlock()
{
	const uint32 me = ZvThread::CurrentID();
	if (!fLocked.load(std::memory_order_acquire) || fOwner.load(std::memory_order_relaxed) != me)
		return;
	if (fCount.fetch_sub(1, std::memory_order_relaxed) - 1 <= 0) {
		fLocked.store(false, std::memory_order_release);
		ZvSemaphore::Release(fSem.load(std::memory_order_relaxed));
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
