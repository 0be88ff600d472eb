// ZvListStorage: slot arrays for every ZvList, from the block cache, and
// the end of a list's optional lock.
#include <ZvList.h>

#include <ZvLocker.h>

#include "base/internal/BlockCache.h"

void* ZvListStorage::AllocateSlots(size_t bytes)
{
	return zvkit::internal::AllocateBlock(bytes);
}

void ZvListStorage::FreeSlots(void* slots, size_t bytes)
{
	zvkit::internal::FreeBlock(slots, bytes);
}

void ZvListStorage::DeleteLock(ZvLocker* lock)
{
	lock->Lock();
	delete lock;
}
