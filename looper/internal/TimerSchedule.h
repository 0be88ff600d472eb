// TimerSchedule.h: the arithmetic of a runner's ticks.
//
// Tick n of a schedule falls at start + n * interval. After the post of
// tick `tick` was made at `now`, the next one is the first tick that is
// still ahead of now: a post made late is not followed by posts for the
// ticks it missed, and the ticks stay where they were (no drift).
#ifndef ZVKIT_TIMER_SCHEDULE_H
#define ZVKIT_TIMER_SCHEDULE_H

#include <SupportDefs.h>

#include <algorithm>
#include <climits>

namespace zvkit {
namespace internal {

// The time of tick n; LLONG_MAX when it is out of range.
inline bigtime_t TickTime(bigtime_t start, bigtime_t interval, int64 tick)
{
	int64 offset;
	bigtime_t time;
	if (__builtin_mul_overflow(tick, interval, &offset) ||
	    __builtin_add_overflow(start, offset, &time))
		return LLONG_MAX;
	return time;
}

// The tick after `tick`, whose post was made at now (interval > 0).
inline int64 NextTick(bigtime_t start, bigtime_t interval, int64 tick, bigtime_t now)
{
	const int64 passed = now > start ? (now - start) / interval : 0;
	return std::max(tick + 1, passed + 1);
}

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_TIMER_SCHEDULE_H
