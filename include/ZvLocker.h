// ZvLocker.h: the library's recursive, owner-tracking lock.
//
// A ZvLocker holds one kernel semaphore (count 1, named "ZvLocker"). The
// thread that holds it may lock it again without a kernel call; it is free
// again when that thread has unlocked as many times as it locked. An Unlock
// from any other thread is ignored. Kill (or the destructor) deletes the
// semaphore: threads blocked in Lock then fail, and later locks fail.
//
// Thread safety: all operations may be called from any thread.
#ifndef _ZV_LOCKER_H
#define _ZV_LOCKER_H

#include <SupportDefs.h>

#include <ZvExport.h>

#include <atomic>

class ZV_EXPORT ZvLocker
{
public:
	ZvLocker();
	virtual ~ZvLocker();

	ZvLocker(const ZvLocker&) = delete;
	ZvLocker& operator=(const ZvLocker&) = delete;

	bool Lock();
	// 1 locked, 2 timed out, 0 failed; timeout in milliseconds, negative for
	// practically for ever.
	int32 LockWithTimeout(int32 timeout);
	void Unlock();
	bool IsLocked();
	int32 CountLock();
	void Kill();

private:
	// Both lock calls: a recursive lock by the owner, or the semaphore
	// (polled briefly first when timeout is negative). Gives 1, 2 or 0 as
	// LockWithTimeout does; with expiryLocks (Lock's rule) a time-out that
	// expired takes the lock as well.
	int32 AcquireLock(int32 timeout, bool expiryLocks);

	// fLocked and fOwner are read by other threads before they wait on the
	// semaphore (the recursion test), and fCount by CountLock; they are
	// atomics so that those reads are well defined. A new owner stores
	// fLocked last (release) and the test loads it first (acquire), so a
	// thread that sees the lock taken also sees who took it.
	std::atomic<int32> fCount;
	std::atomic<bool> fLocked;
	std::atomic<uint32> fSem;
	std::atomic<uint32> fOwner;
};

#endif // _ZV_LOCKER_H
