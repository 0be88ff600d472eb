// Time.cpp: the monotonic clock of the kernel kit and the futex primitives
// every wait of the kit is built on.
#include "KernelPrivate.h"

#include <OS.h>

#include <cerrno>
#include <climits>
#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zvplatform {

bigtime_t DeadlineAfter(bigtime_t timeout)
{
	const bigtime_t now = system_time();
	if (timeout >= INT64_MAX - now)
		return kNoDeadline;
	return now + timeout;
}

int FutexWait(std::atomic<uint32>* word, uint32 expected, bigtime_t deadline)
{
	// FUTEX_WAIT_BITSET takes an absolute time on CLOCK_MONOTONIC, the clock
	// of system_time(), so a wait interrupted by a signal resumes with the
	// same deadline. Seconds beyond INT32_MAX (68 years of uptime) are
	// treated as no deadline; this also keeps the value within the 32-bit
	// time_t of the i386 system call.
	struct timespec when;
	struct timespec* whenPointer = nullptr;
	if (deadline != kNoDeadline && deadline / 1000000 < INT32_MAX) {
		if (deadline < 0)
			deadline = 0;
		when.tv_sec = static_cast<time_t>(deadline / 1000000);
		when.tv_nsec = static_cast<long>((deadline % 1000000) * 1000);
		whenPointer = &when;
	}
	static_assert(sizeof(std::atomic<uint32>) == sizeof(uint32), "futex word must be 32 bits");
	const long result =
	    syscall(SYS_futex, reinterpret_cast<uint32*>(word), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG,
	            expected, whenPointer, nullptr, FUTEX_BITSET_MATCH_ANY);
	if (result == 0)
		return 0;
	switch (errno) {
	case ETIMEDOUT:
		return ETIMEDOUT;
	case EINTR:
		return EINTR;
	default:
		// EAGAIN: the word no longer held the expected value.
		return 0;
	}
}

void FutexWake(std::atomic<uint32>* word, int count)
{
	syscall(SYS_futex, reinterpret_cast<uint32*>(word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count,
	        nullptr, nullptr, 0);
}

} // namespace zvplatform

bigtime_t system_time(void)
{
	// clock_gettime on CLOCK_MONOTONIC is served by the vDSO: no system call.
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<bigtime_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
