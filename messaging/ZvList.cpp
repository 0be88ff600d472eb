// ZvListStorage: slot arrays for every ZvList (small ones from the block
// cache, large ones kept for reuse by the array store), and the end of a
// list's optional lock.
#include <ZvList.h>

#include <ZvLocker.h>

#include "base/internal/ArrayStore.h"

void* ZvListStorage::AllocateSlots(size_t bytes)
{
	return zvkit::internal::AllocateArray(bytes);
}

void ZvListStorage::FreeSlots(void* slots, size_t bytes)
{
	zvkit::internal::FreeArray(slots, bytes);
}

void ZvListStorage::DeleteLock(ZvLocker* lock)
{
	lock->Lock();
	delete lock;
}
