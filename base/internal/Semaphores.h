// Semaphores.h: the kernel semaphore calls behind ZvSemaphore and ZvLocker.
//
// A wait ends in one of three ways, named by WaitResult; the public calls
// (ZvSemaphore::Acquire, ZvLocker::LockWithTimeout) turn it into their
// documented 1/2/0 with WaitCode and nothing else sees those numbers.
// The library's semaphores are uint32 identifiers; kNoSemaphore (0) is the
// one value that names none, which is what ZvSemaphore::Create gives on
// failure.
//
// Thread safety: all functions may be called from any thread.
#ifndef _ZV_INTERNAL_SEMAPHORES_H
#define _ZV_INTERNAL_SEMAPHORES_H

#include <OS.h>
#include <SupportDefs.h>

#include "Spin.h"
#include "platform/kernel/internal/SemaphoreSlots.h"

namespace zvkit::internal {

constexpr uint32 kNoSemaphore = 0;

// A kernel sem_id held directly (Benaphore calls the kernel itself) follows
// the kernel's rule instead: a valid one is never negative, and
// kNoKernelSemaphore (-1) stands for none.
constexpr sem_id kNoKernelSemaphore = -1;

inline bool IsKernelSemaphore(sem_id sem)
{
	return sem >= 0;
}

enum class WaitResult
{
	kAcquired,
	kTimedOut,
	kFailed
};

// The public form of a wait's end: 1 acquired, 2 timed out, 0 failed.
constexpr int32 WaitCode(WaitResult result)
{
	return result == WaitResult::kAcquired ? 1 : result == WaitResult::kTimedOut ? 2 : 0;
}

// timeout in milliseconds; 0 only polls, a negative one is the longest
// there is (2147483646 ms: the kernel kit has no untimed wait here).
inline WaitResult AcquireSemaphore(uint32 sem, int32 timeout)
{
	if (timeout < 0)
		timeout = 0x7FFFFFFE;
	const bigtime_t microseconds = static_cast<bigtime_t>(timeout) * 1000;
	const status_t status =
	    acquire_sem_etc(static_cast<sem_id>(sem), 1, B_RELATIVE_TIMEOUT, microseconds);
	if (status == B_OK)
		return WaitResult::kAcquired;
	if (status == B_TIMED_OUT)
		return WaitResult::kTimedOut;
	return WaitResult::kFailed;
}

// As AcquireSemaphore(sem, -1), for a semaphore that guards short stretches
// of work (a lock): a taken semaphore is polled a bounded number of times
// before the thread sleeps. A sleep and its wake-up cost two system calls,
// far more than the few hundred nanoseconds a holder keeps such a lock; a
// holder that was preempted costs the poller about a microsecond before it
// sleeps after all.
inline WaitResult AcquireShortHold(uint32 sem)
{
	constexpr int kPolls = 24;
	constexpr int kMaxPauses = 32;
	WaitResult result = WaitResult::kTimedOut;
	if (SpinUntil(kPolls, kMaxPauses, [&] {
		    result = AcquireSemaphore(sem, 0);
		    return result != WaitResult::kTimedOut;
	    }))
		return result;
	return AcquireSemaphore(sem, -1);
}

inline bool ReleaseSemaphore(uint32 sem)
{
	return release_sem(static_cast<sem_id>(sem)) == B_OK;
}

// The one-unit acquire and release that need no wait and no wake-up, made
// inline over the platform's semaphore table (no call into the platform).
// True when done; false, with nothing changed, when the caller must make
// the call (AcquireSemaphore, ReleaseSemaphore), which then answers.
inline bool TakeOneUnitInline(uint32 sem)
{
#if defined(ZVPLATFORM_INLINE_UNITS)
	return zvplatform::TakeOneInline(static_cast<sem_id>(sem));
#else
	(void)sem;
	return false;
#endif
}

inline bool GiveOneUnitInline(uint32 sem)
{
#if defined(ZVPLATFORM_INLINE_UNITS)
	return zvplatform::GiveOneInline(static_cast<sem_id>(sem));
#else
	(void)sem;
	return false;
#endif
}

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_SEMAPHORES_H
