// ArrayStore.h: arrays that grow with the user's data, and reuse of the
// large ones.
//
// A message of tens of thousands of fields grows its item list and its name
// index through arrays of hundreds of kilobytes. The C library hands arrays
// that large back to the system when they are freed (they are mapped on
// their own, or they end the heap and it is trimmed), so the next message of
// that size pays a page fault for every 4 KiB again; and a request that
// large makes it first merge every small free block it holds, which the
// next small allocations (the next message's items) pay for once more.
//
// AllocateArray takes arrays of up to kMaxCachedBlock bytes from the block
// cache and medium ones from ::operator new. Arrays of kMinStoredArray bytes
// and more are rounded up to a power of two, and a freed one is kept in a
// process-wide store for the next array of its size: at most
// kStoredArraysPerClass of each size and kMaxStoredBytes in all, the rest
// goes back to the allocator. The store is shared by every thread, since a
// message grown on one thread is most often freed on another (a looper's);
// taking its lock costs nothing next to filling an array of that size.
//
// Every array is an ordinary ::operator new block (or a block of the block
// cache), so FreeUnsizedBlock may always take one whose size is lost. In
// builds with AddressSanitizer, and with ZVKIT_FORCE_NEW set, the store
// steps aside as the block cache does, and every array is allocated and
// freed at its exact size.
//
// Thread safety: all functions may be called from any thread.
#ifndef _ZV_INTERNAL_ARRAY_STORE_H
#define _ZV_INTERNAL_ARRAY_STORE_H

#include <stddef.h>

namespace zvkit::internal {

constexpr size_t kMinStoredArray = size_t(64) << 10;
constexpr size_t kMaxStoredArray = size_t(4) << 20;
constexpr size_t kStoredArraysPerClass = 4;
constexpr size_t kMaxStoredBytes = size_t(16) << 20;

// An array of at least bytes bytes, not filled, aligned as ::operator new
// aligns. Never null (allocation failure throws std::bad_alloc, as
// ::operator new does).
void* AllocateArray(size_t bytes);
// Gives back an array from AllocateArray(bytes); bytes must be the same
// value. Null is ignored.
void FreeArray(void* array, size_t bytes);

// Statistics for tests: the bytes the store keeps, and how many arrays it
// keeps for requests of bytes bytes.
size_t StoredArrayBytes();
size_t StoredArrays(size_t bytes);

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_ARRAY_STORE_H
