// ZvSemaphore.cpp: static wrappers over the kernel's semaphores.
#include <ZvSemaphore.h>

#include <OS.h>

#include <cstdio>

uint32 ZvSemaphore::Create(int32 count, const char* name)
{
	const sem_id sem = create_sem(count, name != nullptr ? name : "ZvSemaphore");
	return sem < 0 ? 0 : static_cast<uint32>(sem);
}

bool ZvSemaphore::Delete(uint32 sem)
{
	thread_info caller;
	if (get_thread_info(find_thread(nullptr), &caller) != B_OK)
		return false;
	sem_info info;
	if (get_sem_info(static_cast<sem_id>(sem), &info) != B_OK)
		return false;
	if (info.team != caller.team) {
		printf("Fatal! Trying to delete an alien semaphore! semaphore %08x\n", sem);
		return false;
	}
	// Another thread may delete the semaphore between the check and here;
	// delete_sem's own status is deliberately not looked at.
	delete_sem(static_cast<sem_id>(sem));
	return true;
}

int32 ZvSemaphore::Acquire(uint32 sem, int32 timeout)
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

bool ZvSemaphore::Release(uint32 sem)
{
	return release_sem(static_cast<sem_id>(sem)) == B_OK;
}
