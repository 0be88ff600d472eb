// Polling.h: waiting for a state of another thread that no latch can signal.
//
// Some states cannot be announced by the thread that enters them, because
// entering them blocks it (a thread asleep in acquire_sem, a suspended
// thread). Tests observe those through the kit (get_sem_count,
// get_thread_info) with WaitUntil, which polls with a bounded total time.
#ifndef ZVKIT_POLLING_H
#define ZVKIT_POLLING_H

#include <OS.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace zvtest {

// True as soon as condition() holds; false when limit passed without it.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
	const auto end = std::chrono::steady_clock::now() + limit;
	while (!condition()) {
		if (std::chrono::steady_clock::now() >= end)
			return false;
		std::this_thread::sleep_for(std::chrono::microseconds(200));
	}
	return true;
}

// True when thread (one of the kit's) is asleep on the semaphore named name.
inline bool IsWaitingOnSemaphore(thread_id thread, const char* name)
{
	thread_info info;
	sem_info sem;
	return get_thread_info(thread, &info) == B_OK && info.state == B_THREAD_WAITING &&
	       get_sem_info(info.sem, &sem) == B_OK && std::strcmp(sem.name, name) == 0;
}

} // namespace zvtest

#endif // ZVKIT_POLLING_H
