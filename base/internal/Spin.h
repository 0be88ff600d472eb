// Spin.h: short, bounded busy waits and the processor hints they use.
//
// A lock held for a few hundred nanoseconds is cheaper to poll than to sleep
// on (a sleep and its wake-up are two system calls); SpinUntil polls a
// bounded number of times and leaves the sleep to the caller. PollFor does
// the same for a bounded time, and PollBackoff decides when such a poll is
// worth trying at all.
//
// Thread safety: the functions are stateless; a PollBackoff belongs to one
// thread (keep it thread_local or in an object only that thread uses).
#ifndef _ZV_INTERNAL_SPIN_H
#define _ZV_INTERNAL_SPIN_H

#include <OS.h>
#include <SupportDefs.h>

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

// Polls attempt() until it returns true or budget microseconds have passed,
// or until deadline (system_time) when that comes first; a negative
// deadline sets no limit of its own. The clock is read once every few
// polls. Returns whether an attempt succeeded.
template <typename Attempt>
inline bool PollFor(bigtime_t budget, bigtime_t deadline, Attempt attempt)
{
	constexpr int kPollsPerClockRead = 16;
	bigtime_t until = system_time() + budget;
	if (deadline >= 0 && deadline < until)
		until = deadline;
	do {
		if (SpinUntil(kPollsPerClockRead, 1, attempt))
			return true;
	} while (system_time() < until);
	return false;
}

// Whether a thread about to sleep for something another thread will do
// should poll for it first. Polling pays only while the other thread runs on
// another processor at the same time; where the two share one (a loaded
// machine, a virtual machine whose processors take turns), every poll keeps
// the other off the processor for as long as it lasts. So a poll that
// misses turns polling off for the next waits, twice as many after each
// further miss (up to 2^kMaxMisses); a hit turns it back on at once.
class PollBackoff
{
public:
	// Whether this wait should poll first; counts a skipped wait otherwise.
	bool ShouldPoll()
	{
		if (fSkips <= 0)
			return true;
		fSkips--;
		return false;
	}
	// The poll caught what it waited for.
	void Hit() { fMisses = 0; }
	// The poll ran out: skip polling for the next 2^misses waits.
	void Miss()
	{
		if (fMisses < kMaxMisses)
			fMisses++;
		fSkips = 1 << fMisses;
	}

private:
	static constexpr int32 kMaxMisses = 8;
	int32 fMisses = 0;
	int32 fSkips = 0;
};

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_SPIN_H
