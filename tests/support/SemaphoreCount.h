// SemaphoreCount.h: reading a kernel semaphore's count in tests.
//
// CountOf gives the count as get_sem_count reports it (a negative value is
// the units owed to blocked waiters) and fails the test when the call does;
// CountBecomes waits, bounded, until it reads wanted (a waiter registering
// on another thread).
#ifndef ZVKIT_SEMAPHORE_COUNT_H
#define ZVKIT_SEMAPHORE_COUNT_H

#include "Polling.h"

#include <OS.h>

#include <gtest/gtest.h>

namespace zvtest {

inline int32 CountOf(sem_id sem)
{
	int32 count = 0x7eadbeef;
	EXPECT_EQ(get_sem_count(sem, &count), B_OK);
	return count;
}

inline bool CountBecomes(sem_id sem, int32 wanted)
{
	return WaitUntil([&] {
		int32 count = 0;
		return get_sem_count(sem, &count) == B_OK && count == wanted;
	});
}

} // namespace zvtest

#endif // ZVKIT_SEMAPHORE_COUNT_H
