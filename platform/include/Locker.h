// Locker.h: the application kit's recursive lock, BLocker.
//
// A BLocker is owned by at most one thread at a time. The owning thread may
// lock it again; it becomes free when that thread has unlocked as many times
// as it locked. It is built on one kernel semaphore; in the default
// (benaphore) style an uncontended Lock costs one atomic operation.
//
// Thread safety: every member may be called from any thread. Unlock from a
// thread that does not hold the lock is ignored. IsLocked answers whether the
// calling thread holds the lock.
#ifndef _LOCKER_H
#define _LOCKER_H

#include <OS.h>
#include <SupportDefs.h>

class _EXPORT BLocker
{
public:
	BLocker();
	BLocker(const char* name);
	BLocker(bool benaphoreStyle);
	BLocker(const char* name, bool benaphoreStyle);
	virtual ~BLocker();

	BLocker(const BLocker&) = delete;
	BLocker& operator=(const BLocker&) = delete;

	// B_OK, or the error that creating the semaphore gave.
	status_t InitCheck() const;

	bool Lock();
	// B_OK, B_TIMED_OUT when the lock stayed taken for `timeout`
	// microseconds, or the semaphore's error.
	status_t LockWithTimeout(bigtime_t timeout);
	void Unlock();

	thread_id LockingThread() const;
	bool IsLocked() const;
	int32 CountLocks() const;
	int32 CountLockRequests() const;
	sem_id Sem() const;

private:
	void _Init(const char* name, bool benaphoreStyle);
	status_t _Acquire(bigtime_t timeout);

	// Benaphore style: number of threads holding or wanting the lock; the
	// semaphore is used only when it was not zero.
	int32 fBenaphoreCount;
	sem_id fSemaphoreID;
	// Written by the owner only; read by other threads (LockingThread,
	// IsLocked), hence accessed atomically.
	thread_id fLockOwner;
	int32 fRecursiveCount;
	bool fBenaphoreStyle;
};

#endif // _LOCKER_H
