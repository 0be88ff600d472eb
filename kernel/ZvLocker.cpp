// ZvLocker.cpp: the library's recursive, owner-tracking lock.
#include <ZvLocker.h>

#include <ZvSemaphore.h>

#include "base/internal/Checks.h"
#include "base/internal/CurrentThread.h"
#include "base/internal/Semaphores.h"

using zvkit::internal::AcquireSemaphore;
using zvkit::internal::AcquireShortHold;
using zvkit::internal::CurrentThread;
using zvkit::internal::GiveOneUnitInline;
using zvkit::internal::kNoSemaphore;
using zvkit::internal::ReleaseSemaphore;
using zvkit::internal::TakeOneUnitInline;
using zvkit::internal::WaitCode;
using zvkit::internal::WaitResult;

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

// The uncontended lock and unlock of a thread that has looked its identifier
// up before are made inline: the semaphore's unit is taken and given back
// over the platform's table (TakeOneUnitInline, GiveOneUnitInline). Anything
// else (a first call of a thread, a taken or deleted semaphore, waiters) goes
// out of line, by a tail call, so that the inline path keeps nothing alive
// across a call and saves no registers.

// The body of both lock calls: a recursive lock by the owner, the inline
// take, or AcquireThroughCalls.
__attribute__((always_inline)) inline int32 ZvLocker::AcquireLock(int32 timeout, bool expiryLocks)
{
	// fLocked is true only after fOwner holds a real identifier, so an
	// identifier not looked up yet (0) is never taken for the owner's.
	const uint32 me = zvkit::internal::CachedCurrentThread();
	if (fLocked.load(std::memory_order_acquire) && fOwner.load(std::memory_order_relaxed) == me) {
		fCount.store(fCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
		return 1;
	}
	if (me == 0 || !TakeOneUnitInline(fSem.load(std::memory_order_relaxed)))
		return AcquireThroughCalls(me, timeout, expiryLocks);
	fOwner.store(me, std::memory_order_relaxed);
	fCount.store(1, std::memory_order_relaxed);
	fLocked.store(true, std::memory_order_release);
	return 1;
}

bool ZvLocker::Lock()
{
	// A result of 2 (the 24.8-day time-out expired) is taken as success.
	return AcquireLock(-1, true) != 0;
}

int32 ZvLocker::LockWithTimeout(int32 timeout)
{
	return AcquireLock(timeout, false);
}

namespace {

// The wait of a lock that a poll found taken (or gone). An untimed lock polls
// briefly before it sleeps: holders keep the lock for short stretches.
WaitResult WaitForSemaphore(uint32 sem, int32 timeout)
{
	return timeout < 0 ? AcquireShortHold(sem) : AcquireSemaphore(sem, timeout);
}

} // namespace

__attribute__((noinline)) int32 ZvLocker::AcquireThroughCalls(uint32 me, int32 timeout,
                                                              bool expiryLocks)
{
	if (me == 0) {
		// The thread's first call: look its identifier up, then test the
		// recursion again (a forked child's thread gets a new identifier).
		me = CurrentThread();
		if (fLocked.load(std::memory_order_acquire) &&
		    fOwner.load(std::memory_order_relaxed) == me) {
			fCount.store(fCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
			return 1;
		}
	}
	// A free semaphore is taken by a poll whatever the time-out; only a
	// taken (or deleted) one goes on to the wait, which answers as the
	// time-out asks.
	const uint32 sem = fSem.load(std::memory_order_relaxed);
	if (AcquireSemaphore(sem, 0) != WaitResult::kAcquired) {
		const WaitResult result = WaitForSemaphore(sem, timeout);
		if (result == WaitResult::kFailed || (result == WaitResult::kTimedOut && !expiryLocks))
			return WaitCode(result);
	}
	fOwner.store(me, std::memory_order_relaxed);
	fCount.store(1, std::memory_order_relaxed);
	fLocked.store(true, std::memory_order_release);
	return 1;
}

namespace {

// The checked mode's report of an Unlock by a thread that does not hold the
// lock. Out of line, so that Unlock itself needs no stack frame.
__attribute__((noinline, cold)) void ReportForeignUnlock(uint32 me, bool locked)
{
	if (!zvkit::internal::ChecksOn())
		return;
	zvkit::internal::CheckReport(
	    "ZvLocker::Unlock",
	    "thread %u unlocks a lock it does not hold (%s); the call is ignored and the lock "
	    "stays as it was",
	    static_cast<unsigned>(me), locked ? "another thread holds it" : "it is not locked");
}

// Unlock by a thread that has not looked its identifier up yet: looks it
// up, then unlocks. Out of line, so that Unlock itself needs no stack frame.
// (An identifier is never 0; the test only keeps this from ever calling
// itself again and again.)
__attribute__((noinline, cold)) void LookUpThenUnlock(ZvLocker* locker)
{
	if (CurrentThread() != 0)
		locker->Unlock();
}

} // namespace

void ZvLocker::Unlock()
{
	const uint32 me = zvkit::internal::CachedCurrentThread();
	if (__builtin_expect(me == 0, 0))
		return LookUpThenUnlock(this);
	// Only the owner may unlock; anyone else is ignored without a word.
	if (!fLocked.load(std::memory_order_acquire) || fOwner.load(std::memory_order_relaxed) != me) {
		ReportForeignUnlock(me, fLocked.load(std::memory_order_relaxed));
		return;
	}
	const int32 depth = fCount.load(std::memory_order_relaxed) - 1;
	fCount.store(depth, std::memory_order_relaxed);
	if (depth <= 0) {
		fLocked.store(false, std::memory_order_release);
		const uint32 sem = fSem.load(std::memory_order_relaxed);
		if (!GiveOneUnitInline(sem))
			ReleaseSemaphore(sem);
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
	if (sem != kNoSemaphore)
		ZvSemaphore::Delete(sem);
	fSem.store(kNoSemaphore, std::memory_order_relaxed);
}
