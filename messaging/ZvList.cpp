// ZvListStorage: slot arrays for every ZvList, from the block cache.
#include <ZvList.h>

#include "base/internal/BlockCache.h"

void* ZvListStorage::AllocateSlots(size_t bytes)
{
	return zvkit::internal::AllocateBlock(bytes);
}

void ZvListStorage::FreeSlots(void* slots, size_t bytes)
{
	zvkit::internal::FreeBlock(slots, bytes);
}
