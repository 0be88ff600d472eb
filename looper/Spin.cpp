// Spin: bounded polling before the looper's blocking waits.

#include "Spin.h"

#include <ZvLocker.h>
#include <ZvSemaphore.h>

namespace {

// About a few microseconds of polling: long enough to bridge the gap
// between two messages of a busy producer, short enough to cost little
// when the looper is really idle.
const int kPolls = 100;

inline void Pause()
{
#if defined(__i386__) || defined(__x86_64__)
	__builtin_ia32_pause();
#endif
}

// Polls try() while it answers 2 (not now), up to kPolls times; returns its
// last answer.
template <typename Try> int32 Poll(Try attempt)
{
	int32 result = 2;
	for (int poll = 0; poll < kPolls && result == 2; poll++) {
		result = attempt();
		if (result == 2)
			Pause();
	}
	return result;
}

} // namespace

int32 zvlooper::AcquireSoon(uint32 sem)
{
	const int32 result = Poll([sem] { return ZvSemaphore::Acquire(sem, 0); });
	if (result != 2)
		return result;
	return ZvSemaphore::Acquire(sem, -1);
}

bool zvlooper::LockSoon(ZvLocker& locker)
{
	const int32 result = Poll([&locker] { return locker.LockWithTimeout(0); });
	if (result != 2)
		return result == 1;
	return locker.Lock();
}
