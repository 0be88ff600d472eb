// WrapperCalls.h: the algorithms of ZvThread::CurrentID, ZvSemaphore::Acquire
// and ZvSemaphore::Release as inline functions.
//
// The wrappers are implemented by these, and ZvLocker works through the
// same functions, so a lock or unlock costs no calls beyond the kernel kit's
// own.
#ifndef ZVKIT_WRAPPER_CALLS_H
#define ZVKIT_WRAPPER_CALLS_H

#include <OS.h>
#include <SupportDefs.h>

namespace zvkit_private {

// find_thread(NULL) of the calling thread, cached here as well so that the
// lock's fast path makes no call into the platform library. A forked child
// clears the cache of its one thread (see ZvThread.cpp).
extern thread_local uint32 tCurrentThread __attribute__((tls_model("initial-exec")));

inline uint32 CurrentThread()
{
	uint32 id = tCurrentThread;
	if (__builtin_expect(id == 0, 0)) {
		id = static_cast<uint32>(find_thread(nullptr));
		tCurrentThread = id;
	}
	return id;
}

// 1 acquired, 2 timed out, 0 failed; timeout in milliseconds.
inline int32 AcquireSemaphore(uint32 sem, int32 timeout)
{
	// No untimed wait: a negative time-out is the longest one, 2147483646 ms.
	if (timeout < 0)
		timeout = 0x7FFFFFFE;
	const bigtime_t microseconds = static_cast<bigtime_t>(timeout) * 1000;
	const status_t status =
	    acquire_sem_etc(static_cast<sem_id>(sem), 1, B_RELATIVE_TIMEOUT, microseconds);
	if (status == B_OK)
		return 1;
	if (status == B_TIMED_OUT)
		return 2;
	return 0;
}

// Tells the processor that the caller is polling: on x86 a pause, which
// frees the core's resources for its sibling thread and eases the exit from
// the loop. Elsewhere nothing.
inline void CpuRelax()
{
#if defined(__i386__) || defined(__x86_64__)
	__builtin_ia32_pause();
#endif
}

// Asks for the line that holds address in a state that allows writing, so
// that the store that follows does not wait for it. Useful for memory that
// another processor touched last (a block freed by another thread): a plain
// prefetch would fetch the line shared, and the store would then have to ask
// a second time. On x86 processors without the instruction it does nothing.
inline void PrefetchForWrite(const void* address)
{
#if defined(__x86_64__)
	asm volatile("prefetchw %0" : : "m"(*static_cast<const char*>(address)));
#else
	__builtin_prefetch(address, 1);
#endif
}

// As AcquireSemaphore(sem, -1), for a semaphore that guards short stretches
// of work (a lock): when the semaphore is taken, it is polled a bounded
// number of times before the thread sleeps. A sleep and its wake-up cost two
// system calls, far more than the few hundred nanoseconds a holder keeps such
// a lock; a holder that was preempted costs the poller about a microsecond
// before it sleeps after all.
inline int32 AcquireShortHold(uint32 sem)
{
	// The pauses between polls double (1, 2, 4, ... 32, then 32): each poll
	// reads the semaphore's word, and every read takes the line away from
	// the holder, who must win it back to release.
	constexpr int kPolls = 24;
	int pauses = 1;
	for (int poll = 0; poll < kPolls; poll++) {
		const status_t status = acquire_sem_etc(static_cast<sem_id>(sem), 1, B_RELATIVE_TIMEOUT, 0);
		if (status == B_OK)
			return 1;
		if (status != B_TIMED_OUT)
			return 0;
		for (int pause = 0; pause < pauses; pause++)
			CpuRelax();
		if (pauses < 32)
			pauses *= 2;
	}
	return AcquireSemaphore(sem, -1);
}

inline bool ReleaseSemaphore(uint32 sem)
{
	return release_sem(static_cast<sem_id>(sem)) == B_OK;
}

// The "alien" check shared by ZvSemaphore::Delete and ZvThread::Terminate:
// true when the object's team is the calling thread's. lookup is the status
// of the query that gave ownerTeam; a failed query of the object or of the
// caller gives false silently. A foreign team prints refusal followed by the
// identifier ("%08x") and a newline on standard output, and gives false.
bool BelongsToCallersTeam(status_t lookup, team_id ownerTeam, const char* refusal, uint32 id);

} // namespace zvkit_private

#endif // ZVKIT_WRAPPER_CALLS_H
