// BlockCache.h: per-thread caches of small heap blocks.
//
// Messages and their items are allocated on one thread and, once posted to a
// looper, freed on another. The general-purpose allocator pays for that
// pattern on every block (the freeing thread returns the block to the
// allocating thread's arena under its lock). This cache keeps freed blocks
// of up to kMaxCachedBlock bytes in per-thread lists by size class, and moves
// them between threads in batches through a central store, so a steady
// producer/consumer pair exchanges one locked batch every few dozen blocks.
//
// Every block is an ordinary ::operator new block of its class's size, so a
// block may always be handed back to ::operator delete instead (that is what
// happens once a thread's cache is gone). In builds with AddressSanitizer the
// cache steps aside, so that the sanitizer sees every allocation; so it does
// when ZVKIT_FORCE_NEW is set in the environment when the process first
// allocates a block.
// The central store holds a bounded number of batches per class (2 MiB,
// or more for a class a subsystem raised with RaiseCentralLimit); batches
// beyond that go back to the allocator, so memory kept for reuse stays
// bounded.
//
// Thread safety: all functions may be called from any thread.
#ifndef _ZV_INTERNAL_BLOCK_CACHE_H
#define _ZV_INTERNAL_BLOCK_CACHE_H

#include <stddef.h>

#include <new>

namespace zvkit::internal {

constexpr size_t kMaxCachedBlock = 256;

// A block of at least size bytes, aligned as ::operator new aligns. Never
// null (allocation failure is not handled, as elsewhere in the library).
void* AllocateBlock(size_t size);

// As AllocateBlock, but null when memory runs out.
void* AllocateBlock(size_t size, const std::nothrow_t&) noexcept;

// Gives back a block from AllocateBlock(size); size must be the same value.
void FreeBlock(void* block, size_t size);

// Gives back a block whose size is not known (a constructor failed after a
// no-throw allocation): it goes straight to ::operator delete, which is
// valid for every block of the cache.
void FreeUnsizedBlock(void* block) noexcept;

// Lets the central store keep up to bytes bytes (rather than 2 MiB) of the
// class of size: for blocks that are made and freed by the hundred
// thousand at once (a message's items). Never lowers a limit; ignored for
// sizes the cache does not keep.
void RaiseCentralLimit(size_t size, size_t bytes);
// What the central store may keep of the class of size, in bytes (0 for
// sizes the cache does not keep).
size_t CentralLimitBytes(size_t size);
// Statistics for tests: blocks currently held by the calling thread's cache
// and by the central store for the class of size.
size_t ThreadCachedBlocks(size_t size);
size_t CentralCachedBlocks(size_t size);

// Whether this process caches at all (false under AddressSanitizer and
// with ZVKIT_FORCE_NEW set).
bool BlockCacheEnabled();

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_BLOCK_CACHE_H
