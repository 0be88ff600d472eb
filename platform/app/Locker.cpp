// Locker.cpp: BLocker, a recursive lock over one kernel semaphore.

#include <Locker.h>

namespace {

thread_id CurrentThread()
{
	return find_thread(nullptr);
}

} // namespace

BLocker::BLocker()
{
	_Init(nullptr, true);
}

BLocker::BLocker(const char* name)
{
	_Init(name, true);
}

BLocker::BLocker(bool benaphoreStyle)
{
	_Init(nullptr, benaphoreStyle);
}

BLocker::BLocker(const char* name, bool benaphoreStyle)
{
	_Init(name, benaphoreStyle);
}

BLocker::~BLocker()
{
	if (fSemaphoreID >= 0)
		delete_sem(fSemaphoreID);
}

void BLocker::_Init(const char* name, bool benaphoreStyle)
{
	fBenaphoreCount = 0;
	fLockOwner = -1;
	fRecursiveCount = 0;
	fBenaphoreStyle = benaphoreStyle;
	// A benaphore's semaphore starts empty (the atomic count admits the
	// first holder); a plain semaphore lock starts with its one unit free.
	fSemaphoreID = create_sem(benaphoreStyle ? 0 : 1, name != nullptr ? name : "some BLocker");
}

status_t BLocker::InitCheck() const
{
	return fSemaphoreID >= 0 ? B_OK : fSemaphoreID;
}

bool BLocker::Lock()
{
	return _Acquire(B_INFINITE_TIMEOUT) == B_OK;
}

status_t BLocker::LockWithTimeout(bigtime_t timeout)
{
	return _Acquire(timeout);
}

status_t BLocker::_Acquire(bigtime_t timeout)
{
	const thread_id self = CurrentThread();
	// Only the owner itself can find its own id here, so a positive answer
	// is never stale; other threads see some other value and go on to wait.
	if (__atomic_load_n(&fLockOwner, __ATOMIC_RELAXED) == self) {
		__atomic_add_fetch(&fRecursiveCount, 1, __ATOMIC_RELAXED);
		return B_OK;
	}

	status_t status = B_OK;
	if (!fBenaphoreStyle || atomic_add(&fBenaphoreCount, 1) > 0) {
		if (timeout == B_INFINITE_TIMEOUT)
			status = acquire_sem(fSemaphoreID);
		else
			status = acquire_sem_etc(fSemaphoreID, 1, B_RELATIVE_TIMEOUT, timeout);
		// A benaphore waiter that gives up leaves its count in place: the
		// holder's Unlock may already have released the semaphore for it,
		// and taking the count back would then let two threads in. The
		// unclaimed unit is taken by the next waiter instead, which keeps
		// count and semaphore consistent.
	}
	if (status != B_OK)
		return status;
	__atomic_store_n(&fLockOwner, self, __ATOMIC_RELAXED);
	__atomic_store_n(&fRecursiveCount, 1, __ATOMIC_RELAXED);
	return B_OK;
}

void BLocker::Unlock()
{
	if (__atomic_load_n(&fLockOwner, __ATOMIC_RELAXED) != CurrentThread())
		return;
	if (__atomic_sub_fetch(&fRecursiveCount, 1, __ATOMIC_RELAXED) > 0)
		return;
	__atomic_store_n(&fLockOwner, -1, __ATOMIC_RELAXED);
	// Another thread holds or waits for the lock when the count was above
	// one: it is (or will be) waiting on the semaphore.
	if (!fBenaphoreStyle || atomic_add(&fBenaphoreCount, -1) > 1)
		release_sem(fSemaphoreID);
}

thread_id BLocker::LockingThread() const
{
	return __atomic_load_n(&fLockOwner, __ATOMIC_RELAXED);
}

bool BLocker::IsLocked() const
{
	return LockingThread() == CurrentThread();
}

int32 BLocker::CountLocks() const
{
	return __atomic_load_n(&fRecursiveCount, __ATOMIC_RELAXED);
}

int32 BLocker::CountLockRequests() const
{
	return __atomic_load_n(&fBenaphoreCount, __ATOMIC_RELAXED);
}

sem_id BLocker::Sem() const
{
	return fSemaphoreID;
}
