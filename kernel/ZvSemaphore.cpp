// ZvSemaphore.cpp: static wrappers over the kernel's semaphores.
#include <ZvSemaphore.h>

#include "TeamCheck.h"
#include "base/internal/Semaphores.h"

#include <OS.h>

using namespace zvkit::internal;

uint32 ZvSemaphore::Create(int32 count, const char* name)
{
	const sem_id sem = create_sem(count, name != nullptr ? name : "ZvSemaphore");
	return IsKernelSemaphore(sem) ? static_cast<uint32>(sem) : kNoSemaphore;
}

bool ZvSemaphore::Delete(uint32 sem)
{
	sem_info info = {};
	const status_t lookup = get_sem_info(static_cast<sem_id>(sem), &info);
	if (!BelongsToCallersTeam(lookup, info.team,
	                          "Fatal! Trying to delete an alien semaphore! semaphore ", sem))
		return false;
	// Another thread may delete the semaphore between the check and here;
	// delete_sem's own status is deliberately not looked at.
	delete_sem(static_cast<sem_id>(sem));
	return true;
}

// A free unit (with no waiter registered) is taken, and given back, inline
// over the platform's semaphore table; the rest goes through its calls.
int32 ZvSemaphore::Acquire(uint32 sem, int32 timeout)
{
	if (TakeOneUnitInline(sem))
		return 1;
	return WaitCode(AcquireSemaphore(sem, timeout));
}

bool ZvSemaphore::Release(uint32 sem)
{
	return GiveOneUnitInline(sem) || ReleaseSemaphore(sem);
}
