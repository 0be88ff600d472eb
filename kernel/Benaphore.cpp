// Benaphore.cpp: a counting lock that calls the kernel only under contention.
#include <Benaphore.h>

#include "base/internal/Semaphores.h"

#include <algorithm>

using zvkit::internal::IsKernelSemaphore;
using zvkit::internal::kNoKernelSemaphore;

Benaphore::Benaphore() : fCount(0), fSem(kNoKernelSemaphore) {}

Benaphore::~Benaphore()
{
	if (IsKernelSemaphore(fSem))
		delete_sem(fSem);
}

int32 Benaphore::Reset(int32 count, const char* name)
{
	__atomic_store_n(&fCount, count, __ATOMIC_SEQ_CST);
	if (IsKernelSemaphore(fSem))
		delete_sem(fSem);
	fSem = create_sem(0, name);
	return fSem;
}

int32 Benaphore::Free()
{
	const status_t status = delete_sem(fSem);
	fSem = kNoKernelSemaphore;
	return status;
}

int32 Benaphore::Acquire(int32 n)
{
	const int32 previous = atomic_add(&fCount, -n);
	if (previous >= n)
		return B_OK;
	// n - previous also when previous is negative: the wait then includes
	// the units already owed to earlier waiters.
	return acquire_sem_etc(fSem, n - previous, 0, 0);
}

int32 Benaphore::Release(int32 n)
{
	const int32 previous = atomic_add(&fCount, n);
	if (previous >= 0)
		return B_OK;
	return release_sem_etc(fSem, std::min(-previous, n), 0);
}

int32 Benaphore::GetCount(int32* out)
{
	// An unsynchronised snapshot; relaxed, so concurrent updates are not a
	// data race.
	*out = __atomic_load_n(&fCount, __ATOMIC_RELAXED);
	return B_OK;
}
