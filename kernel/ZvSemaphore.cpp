// ZvSemaphore.cpp: static wrappers over the kernel's semaphores.
#include <ZvSemaphore.h>

#include "WrapperCalls.h"

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
	return zvkit_private::AcquireSemaphore(sem, timeout);
}

bool ZvSemaphore::Release(uint32 sem)
{
	return zvkit_private::ReleaseSemaphore(sem);
}
