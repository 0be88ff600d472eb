// LockHolder.h: holds a lock for a scope.
//
// Works with any lock whose Lock() returns whether it was had and whose
// Unlock() gives it back (ZvLocker and the classes built on it). Every path
// out of the scope unlocks a lock that was had.
//
// Ownership: the holder does not own the lock, which must outlive it.
// Thread safety: a holder belongs to the thread that made it.
#ifndef _ZV_INTERNAL_LOCK_HOLDER_H
#define _ZV_INTERNAL_LOCK_HOLDER_H

namespace zvkit::internal {

template <typename Lockable> class LockHolder
{
public:
	explicit LockHolder(Lockable& lock) : fLock(lock), fLocked(lock.Lock()) {}
	~LockHolder()
	{
		if (fLocked)
			fLock.Unlock();
	}

	LockHolder(const LockHolder&) = delete;
	LockHolder& operator=(const LockHolder&) = delete;

	bool IsLocked() const { return fLocked; }

private:
	Lockable& fLock;
	const bool fLocked;
};

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_LOCK_HOLDER_H
