// ZvListStorage: slot arrays for every ZvList, from the block cache.
#include <ZvList.h>

#include "internal/BlockCache.h"

void* ZvListStorage::AllocateSlots(size_t bytes)
{
	return zv_internal::AllocateBlock(bytes);
}

void ZvListStorage::FreeSlots(void* slots, size_t bytes)
{
	zv_internal::FreeBlock(slots, bytes);
}
