// ClaimedBlocks.h: a test's hold on every block a cache keeps for one size.
//
// A test that counts what a cache of the library keeps for a size starts
// from none: it takes every kept block for its whole life and gives them back
// when it ends, so that what earlier tests (or an earlier repetition) left
// there cannot change its counts.
#ifndef ZVKIT_CLAIMED_BLOCKS_H
#define ZVKIT_CLAIMED_BLOCKS_H

#include <stddef.h>

#include <vector>

namespace zvtest {

class ClaimedBlocks
{
public:
	// Whether the cache still keeps a block of size bytes; takes one; gives
	// one back.
	using AnyKept = bool (*)(size_t size);
	using Take = void* (*)(size_t size);
	using Give = void (*)(void* block, size_t size);

	ClaimedBlocks(size_t size, AnyKept anyKept, Take take, Give give) : fSize(size), fGive(give)
	{
		while (anyKept(size))
			fBlocks.push_back(take(size));
	}

	~ClaimedBlocks()
	{
		for (void* block : fBlocks)
			fGive(block, fSize);
	}

	ClaimedBlocks(const ClaimedBlocks&) = delete;
	ClaimedBlocks& operator=(const ClaimedBlocks&) = delete;

private:
	size_t fSize;
	Give fGive;
	std::vector<void*> fBlocks;
};

} // namespace zvtest

#endif // ZVKIT_CLAIMED_BLOCKS_H
