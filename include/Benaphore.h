// Benaphore.h: a counting lock that calls the kernel only under contention.
//
// The free units live in an atomically updated count; the kernel semaphore
// (created with count 0 by Reset) is touched only when a caller must wait or
// a waiter must be woken. A fresh Benaphore has no semaphore and is unusable
// until Reset. Results are the kernel's status codes.
//
// Ownership: the Benaphore owns its semaphore and deletes it on destruction.
// Thread safety: Acquire and Release may be called from any thread; Reset and
// Free must not race with them.
#ifndef _BENAPHORE_H
#define _BENAPHORE_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvExport.h>

// A counting lock that takes its semaphore only under contention; see the
// file's description.
class ZV_EXPORT Benaphore
{
public:
	// No free units and no semaphore: call Reset before use.
	Benaphore();
	// Deletes the semaphore, if any.
	~Benaphore();

	//@{
	// Not copyable.
	Benaphore(const Benaphore&) = delete;
	Benaphore& operator=(const Benaphore&) = delete;
	//@}

	// Sets the free units to count and replaces the semaphore with a new one.
	// Returns the new semaphore identifier, or a negative error.
	int32 Reset(int32 count, const char* name);
	// Deletes the semaphore; returns delete_sem's status.
	int32 Free();

	//@{
	// Takes one unit (or n): at once while enough are free, else waiting on
	// the semaphore. B_OK, or the semaphore's error.
	int32 Acquire();
	int32 Acquire(int32 n);
	//@}
	//@{
	// Gives back one unit (or n), waking waiters through the semaphore only
	// when some are owed units. B_OK, or the semaphore's error.
	int32 Release();
	int32 Release(int32 n);
	//@}
	// Stores a snapshot of the free units (negative: units owed to
	// waiters) in *out; returns B_OK.
	int32 GetCount(int32* out);

private:
	int32 fCount;
	int32 fSem;
};

// The one-unit operations are inline: uncontended, each is one atomic
// addition and no call at all.

inline int32 Benaphore::Acquire()
{
	// atomic_add returns the count before the addition: a positive one
	// means a unit was free and is now the caller's.
	if (atomic_add(&fCount, -1) > 0)
		return B_OK;
	return acquire_sem(fSem);
}

inline int32 Benaphore::Release()
{
	if (atomic_add(&fCount, 1) >= 0)
		return B_OK;
	return release_sem(fSem);
}

#endif // _BENAPHORE_H
