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

// A recursive lock that knows its owner; see the file's description.
class ZV_EXPORT ZvLocker
{
public:
	// An unlocked lock with its own semaphore ("ZvLocker").
	ZvLocker();
	// Deletes the semaphore (Kill).
	virtual ~ZvLocker();

	//@{
	// Not copyable.
	ZvLocker(const ZvLocker&) = delete;
	ZvLocker& operator=(const ZvLocker&) = delete;
	//@}

	// Takes the lock, waiting as long as needed; the owner may lock again.
	// False when the semaphore is gone.
	bool Lock();
	// 1 locked, 2 timed out, 0 failed; timeout in milliseconds, negative for
	// practically for ever.
	int32 LockWithTimeout(int32 timeout);
	// Gives back one level; the last one frees the lock. Ignored when the
	// caller is not the owner.
	void Unlock();
	// Whether some thread holds the lock (a snapshot).
	bool IsLocked();
	// The owner's number of levels, 0 when free (a snapshot).
	int32 CountLock();
	// Deletes the semaphore: every later or waiting Lock fails.
	void Kill();

private:
	// Both lock calls: a recursive lock by the owner, or the semaphore
	// (polled briefly first when timeout is negative). Gives 1, 2 or 0 as
	// LockWithTimeout does; with expiryLocks (Lock's rule) a time-out that
	// expired takes the lock as well.
	int32 AcquireLock(int32 timeout, bool expiryLocks);
	// AcquireLock's way through the platform's calls, when the inline take
	// could not be made; me is the caller's identifier, or 0 when it has not
	// been looked up yet.
	int32 AcquireThroughCalls(uint32 me, int32 timeout, bool expiryLocks);

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
