// SemaphoreCount.h: reading a kernel semaphore's count in tests.
//
// CountOf gives the count as get_sem_count reports it (a negative value is
// the units owed to blocked waiters) and fails the test when the call does;
// CountBecomes waits, bounded, until it reads wanted (a waiter registering
// on another thread). ForkWithAParentWaiter runs a test's calls in a child
// whose copy of the table holds a waiter of the parent.
#ifndef ZVKIT_SEMAPHORE_COUNT_H
#define ZVKIT_SEMAPHORE_COUNT_H

#include "ForkedChild.h"
#include "Polling.h"

#include <OS.h>

#include <gtest/gtest.h>

#include <stdio.h>

#include <thread>

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

// Makes a semaphore with no unit, lets a thread of this process wait on it,
// and forks: the waiter stays registered in the child's copy of the table,
// though the child has no such thread. The child runs body(sem) and exits
// with its result, which lands in *result (RunInChild's). The parent's own
// semaphore must still owe its waiter one unit afterwards; then the waiter is
// let go and the semaphore deleted.
template <typename Body> void ForkWithAParentWaiter(Body body, int* result)
{
	const sem_id sem = create_sem(0, "waited on");
	std::thread waiter([sem] { acquire_sem(sem); });
	if (CountBecomes(sem, -1)) {
		fflush(stdout);
		*result = RunInChild([sem, &body] { return body(sem); });
		// The parent's own semaphore is untouched by the child's calls.
		EXPECT_EQ(CountOf(sem), -1);
	} else {
		ADD_FAILURE() << "the waiter never registered on the semaphore";
	}
	release_sem(sem);
	waiter.join();
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

} // namespace zvtest

#endif // ZVKIT_SEMAPHORE_COUNT_H
