// BlockCache: per-thread caches of small blocks, balanced through a central
// store in batches.
#include "BlockCache.h"

#include "ProcessStore.h"
#include "Spin.h"

#include <new>

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <stdint.h>
#include <vector>

namespace zvkit::internal {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Decided once per process, at its first block, so that the cache never
// changes its mind under blocks in use. ZVKIT_FORCE_NEW in the environment
// turns the cache off, for tools that want to see every allocation (a
// memory checker, a test counting blocks).
bool Enabled()
{
	static const bool enabled = !kSanitized && getenv("ZVKIT_FORCE_NEW") == nullptr;
	return enabled;
}

// Classes are multiples of 16 bytes, which keeps every block aligned as
// ::operator new aligns on the hosts built here.
constexpr size_t kGranule = 16;
constexpr size_t kClassCount = kMaxCachedBlock / kGranule;
// A cache line.
constexpr size_t kLine = 64;
// Blocks move between a thread and the central store this many at a time; a
// thread keeps up to two batches per class, so a thread that alternates
// between allocating and freeing around the boundary does not bounce batches.
constexpr uint32_t kBatchSize = 32;
constexpr uint32_t kMaxThreadBlocks = 2 * kBatchSize;
// What the central store may keep per class. A burst (a looper that falls
// behind by thousands of messages) frees that many blocks before its
// producer takes them again; the store keeps them for reuse up to this much.
constexpr size_t kMaxCentralBytes = size_t(2) << 20;

size_t ClassOf(size_t size)
{
	return size == 0 ? 0 : (size - 1) / kGranule;
}

size_t ClassBytes(size_t sizeClass)
{
	return (sizeClass + 1) * kGranule;
}

// A batch of free blocks on its way between threads. Free blocks are kept
// in arrays of pointers rather than linked through their first words: a
// thread taking a block another thread freed then does not have to read the
// block (a cache miss on another core's line) to find the next one.
struct Batch
{
	Batch() = default;
	explicit Batch(void* const* from) { memcpy(blocks, from, sizeof(blocks)); }

	void* blocks[kBatchSize];
};

// The central store's lock. It is held for a copy of one batch, so a
// thread that finds it taken tries again a bounded number of times before
// it sleeps: sleeping and being woken costs two system calls and often
// tens of microseconds, far more than waiting for the holder.
class BatchLock
{
public:
	void lock()
	{
		if (!SpinUntil(kAttempts, 1, [this] { return fMutex.try_lock(); }))
			fMutex.lock();
	}
	void unlock() { fMutex.unlock(); }

private:
	static constexpr int kAttempts = 64;
	std::mutex fMutex;
};

// Per class, what the central store may keep when a subsystem raised it
// above kMaxCentralBytes (0: not raised). Constant-initialised, so that a
// raise made while the library loads never finds it unmade.
std::atomic<size_t> gRaisedLimits[kClassCount] = {};

size_t CentralLimit(size_t sizeClass)
{
	const size_t raised = gRaisedLimits[sizeClass].load(std::memory_order_relaxed);
	return raised > kMaxCentralBytes ? raised : kMaxCentralBytes;
}

class CentralStore
{
public:
	// Takes one batch, or returns false when the store has none.
	bool Take(size_t sizeClass, Batch* batch)
	{
		Class& entry = fClasses[sizeClass];
		// A thread making many blocks of a class (a message of many items)
		// finds the store empty once per block: it is told so without the
		// lock. A batch put there meanwhile is simply taken next time.
		if (fAvailable[sizeClass].load(std::memory_order_relaxed) == 0)
			return false;
		std::lock_guard<BatchLock> hold(entry.lock);
		if (entry.batches.empty())
			return false;
		*batch = entry.batches.back();
		entry.batches.pop_back();
		fAvailable[sizeClass].store(entry.batches.size(), std::memory_order_relaxed);
		return true;
	}

	// Keeps count blocks (a whole batch, or fewer when a thread ends), or
	// gives them back to the allocator when the store is full.
	void Put(size_t sizeClass, void* const* blocks, uint32_t count)
	{
		Class& entry = fClasses[sizeClass];
		const size_t maxBatches = CentralLimit(sizeClass) / (kBatchSize * ClassBytes(sizeClass));
		if (count == kBatchSize) {
			std::lock_guard<BatchLock> hold(entry.lock);
			if (entry.batches.size() < maxBatches) {
				entry.batches.emplace_back(blocks);
				fAvailable[sizeClass].store(entry.batches.size(), std::memory_order_relaxed);
				return;
			}
		}
		for (uint32_t i = 0; i < count; i++)
			::operator delete(blocks[i]);
	}

	size_t CountBlocks(size_t sizeClass)
	{
		Class& entry = fClasses[sizeClass];
		std::lock_guard<BatchLock> hold(entry.lock);
		return entry.batches.size() * kBatchSize;
	}

	// Around fork() (see ProcessStore.h): every class's lock.
	void LockAll()
	{
		for (Class& entry : fClasses)
			entry.lock.lock();
	}

	void UnlockAll()
	{
		for (Class& entry : fClasses)
			entry.lock.unlock();
	}

private:
	// A line of its own each: the classes of a message's blocks are taken
	// and given back at about the same time by different threads.
	struct alignas(64) Class
	{
		// Guards batches.
		BatchLock lock;
		std::vector<Batch> batches;
	};

	Class fClasses[kClassCount];
	// Each class's number of batches, written under its lock, read without
	// it (kept apart so that a class stays one line).
	std::atomic<size_t> fAvailable[kClassCount] = {};
};

// The store is never destroyed: thread caches flush into it when their
// threads end, which can be after static destructors have run.
CentralStore& Central()
{
	return TheProcessStore<CentralStore>();
}

class ThreadCache
{
public:
	// Hands every block over when the thread ends: whole batches to the
	// central store for other threads, the rest back to the allocator.
	~ThreadCache()
	{
		for (size_t sizeClass = 0; sizeClass < kClassCount; sizeClass++) {
			Stack& stack = fStacks[sizeClass];
			while (stack.count > 0) {
				const uint32_t moved = stack.count < kBatchSize ? stack.count : kBatchSize;
				stack.count -= moved;
				Central().Put(sizeClass, stack.blocks + stack.count, moved);
			}
		}
	}

	// The fast paths: a block from this thread's stack, or null when it is
	// empty; a block onto it, or false when it is full.
	void* Pop(size_t sizeClass)
	{
		Stack& stack = fStacks[sizeClass];
		if (stack.count == 0)
			return nullptr;
		void* block = stack.blocks[--stack.count];
		// The next block of the class is asked for now, to be written: it
		// was most likely freed by another thread (a message handled by a
		// looper), and fetching it takes as long as the work done until the
		// next allocation of its size.
		if (stack.count > 0) {
			const char* next = static_cast<const char*>(stack.blocks[stack.count - 1]);
			PrefetchForWrite(next);
			if (ClassBytes(sizeClass) > kLine)
				PrefetchForWrite(next + kLine);
		}
		return block;
	}

	bool Push(void* block, size_t sizeClass)
	{
		Stack& stack = fStacks[sizeClass];
		if (stack.count == kMaxThreadBlocks)
			return false;
		stack.blocks[stack.count++] = block;
		return true;
	}

	// The slow paths, for an empty or a full stack.
	void* Refill(size_t sizeClass)
	{
		Stack& stack = fStacks[sizeClass];
		Batch batch;
		if (!Central().Take(sizeClass, &batch))
			return ::operator new(ClassBytes(sizeClass));
		memcpy(stack.blocks, batch.blocks, sizeof(batch.blocks));
		stack.count = kBatchSize - 1;
		return stack.blocks[kBatchSize - 1];
	}

	void Spill(void* block, size_t sizeClass)
	{
		// The older half goes; the blocks freed last stay, being the
		// likeliest to be in this core's cache.
		Stack& stack = fStacks[sizeClass];
		Central().Put(sizeClass, stack.blocks, kBatchSize);
		memmove(stack.blocks, stack.blocks + kBatchSize,
		        (kMaxThreadBlocks - kBatchSize) * sizeof(void*));
		stack.count -= kBatchSize;
		stack.blocks[stack.count++] = block;
	}

	size_t Count(size_t sizeClass) const { return fStacks[sizeClass].count; }

private:
	struct Stack
	{
		uint32_t count;
		void* blocks[kMaxThreadBlocks];
	};

	Stack fStacks[kClassCount] = {};
};

// The calling thread's cache: null before its first use, kGone once the
// thread has begun to end or when the cache is off (blocks then go straight
// to the allocator). The pointer is all the fast paths read, in the
// initial-exec model, which costs one load instead of a call to find the
// thread's storage; the cache itself lives on the heap so that the
// library's static TLS stays small.
ThreadCache* const kGone = reinterpret_cast<ThreadCache*>(uintptr_t(1));
thread_local ThreadCache* tCache __attribute__((tls_model("initial-exec"))) = nullptr;

// Owns the thread's cache; its destructor runs when the thread ends.
class CacheOwner
{
public:
	void Adopt(ThreadCache* cache) { fCache = cache; }

	~CacheOwner()
	{
		tCache = kGone;
		delete fCache;
	}

private:
	ThreadCache* fCache = nullptr;
};

thread_local CacheOwner tOwner;

inline bool IsLive(const ThreadCache* cache)
{
	return reinterpret_cast<uintptr_t>(cache) > 1;
}

// The calling thread's cache, made at its first use; null once the thread
// is ending, or when the cache is off.
ThreadCache* CurrentCache()
{
	ThreadCache* cache = tCache;
	if (IsLive(cache))
		return cache;
	if (cache == kGone)
		return nullptr;
	if (!Enabled()) {
		tCache = kGone;
		return nullptr;
	}
	cache = new ThreadCache();
	tOwner.Adopt(cache);
	tCache = cache;
	return cache;
}

// The cache for blocks of size bytes: the calling thread's, or null for a
// size the cache does not keep.
ThreadCache* CacheFor(size_t size)
{
	return size <= kMaxCachedBlock ? CurrentCache() : nullptr;
}

__attribute__((noinline)) void* AllocateSlow(size_t size)
{
	ThreadCache* cache = CacheFor(size);
	if (cache == nullptr) {
		// A thread whose cache is gone still makes blocks of the class's
		// full size: another thread's cache may take them when they are
		// freed there. With the cache off no cache ever holds a block, so
		// the exact size is asked for (tools counting blocks see it).
		const bool classSized = size <= kMaxCachedBlock && Enabled();
		return ::operator new(classSized ? ClassBytes(ClassOf(size)) : size);
	}
	const size_t sizeClass = ClassOf(size);
	void* block = cache->Pop(sizeClass);
	return block != nullptr ? block : cache->Refill(sizeClass);
}

__attribute__((noinline)) void FreeSlow(void* block, size_t size)
{
	if (block == nullptr)
		return;
	ThreadCache* cache = CacheFor(size);
	if (cache == nullptr) {
		::operator delete(block);
		return;
	}
	const size_t sizeClass = ClassOf(size);
	if (!cache->Push(block, sizeClass))
		cache->Spill(block, sizeClass);
}

} // namespace

// The fast paths take a block from, or put it onto, the calling thread's
// stack for the class; everything else (first use in a thread, an empty or
// full stack, an odd size, the cache off) is left to the slow paths.
void* AllocateBlock(size_t size)
{
	ThreadCache* cache = tCache;
	if (__builtin_expect(size - 1 < kMaxCachedBlock && IsLive(cache), 1)) {
		void* block = cache->Pop(ClassOf(size));
		if (__builtin_expect(block != nullptr, 1))
			return block;
	}
	return AllocateSlow(size);
}

void* AllocateBlock(size_t size, const std::nothrow_t&) noexcept
{
	try {
		return AllocateBlock(size);
	} catch (const std::bad_alloc&) {
		return nullptr;
	}
}

void FreeUnsizedBlock(void* block) noexcept
{
	::operator delete(block);
}

void FreeBlock(void* block, size_t size)
{
	ThreadCache* cache = tCache;
	if (__builtin_expect(block != nullptr && size - 1 < kMaxCachedBlock && IsLive(cache), 1)) {
		if (__builtin_expect(cache->Push(block, ClassOf(size)), 1))
			return;
	}
	FreeSlow(block, size);
}

size_t ThreadCachedBlocks(size_t size)
{
	ThreadCache* cache = CacheFor(size);
	return cache == nullptr ? 0 : cache->Count(ClassOf(size));
}

void RaiseCentralLimit(size_t size, size_t bytes)
{
	if (size == 0 || size > kMaxCachedBlock)
		return;
	std::atomic<size_t>& limit = gRaisedLimits[ClassOf(size)];
	size_t now = limit.load(std::memory_order_relaxed);
	while (now < bytes && !limit.compare_exchange_weak(now, bytes, std::memory_order_relaxed)) {
	}
}

size_t CentralLimitBytes(size_t size)
{
	return size == 0 || size > kMaxCachedBlock ? 0 : CentralLimit(ClassOf(size));
}

size_t CentralCachedBlocks(size_t size)
{
	return size > kMaxCachedBlock ? 0 : Central().CountBlocks(ClassOf(size));
}

bool BlockCacheEnabled()
{
	return Enabled();
}

} // namespace zvkit::internal
