// Spin.h: short, bounded busy waits and the processor hints they use.
//
// A lock held for a few hundred nanoseconds is cheaper to poll than to sleep
// on (a sleep and its wake-up are two system calls); SpinUntil polls a
// bounded number of times and leaves the sleep to the caller.
//
// Thread safety: stateless.
#ifndef _ZV_INTERNAL_SPIN_H
#define _ZV_INTERNAL_SPIN_H

namespace zvkit::internal {

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

// Calls attempt() up to attempts times until it returns true, pausing after
// each failure. The pauses start at one and double up to maxPauses: every
// poll of a lock word takes its line away from the holder, who must win it
// back to release. Returns whether an attempt succeeded.
template <typename Attempt> inline bool SpinUntil(int attempts, int maxPauses, Attempt attempt)
{
	int pauses = 1;
	for (int i = 0; i < attempts; i++) {
		if (attempt())
			return true;
		for (int pause = 0; pause < pauses; pause++)
			CpuRelax();
		if (pauses < maxPauses)
			pauses *= 2;
	}
	return false;
}

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_SPIN_H
