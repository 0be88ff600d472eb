// ArrayStore: growing arrays from the block cache or the allocator, and a
// bounded store of large freed ones for reuse.
#include "ArrayStore.h"

#include "BlockCache.h"
#include "ProcessStore.h"

#include <new>

#include <mutex>

namespace zvkit::internal {
namespace {

constexpr int kMinShift = 16;
constexpr int kMaxShift = 22;
constexpr int kClassCount = kMaxShift - kMinShift + 1;
static_assert(kMinStoredArray == size_t(1) << kMinShift, "the smallest stored class");
static_assert(kMaxStoredArray == size_t(1) << kMaxShift, "the largest stored class");

// The class of a stored size (kMinStoredArray <= bytes <= kMaxStoredArray):
// the power of two it rounds up to.
int ClassOf(size_t bytes)
{
	const int shift = 64 - __builtin_clzll(static_cast<unsigned long long>(bytes - 1));
	return shift - kMinShift;
}

size_t ClassBytes(int sizeClass)
{
	return size_t(1) << (sizeClass + kMinShift);
}

bool Stored(size_t bytes)
{
	return bytes >= kMinStoredArray && bytes <= kMaxStoredArray && BlockCacheEnabled();
}

class Store
{
public:
	// A kept array of the class, or null.
	void* Take(int sizeClass)
	{
		std::lock_guard<std::mutex> hold(fLock);
		Class& entry = fClasses[sizeClass];
		if (entry.count == 0)
			return nullptr;
		fBytes -= ClassBytes(sizeClass);
		return entry.arrays[--entry.count];
	}

	// Keeps array, or returns false when its class or the store is full.
	bool Put(void* array, int sizeClass)
	{
		std::lock_guard<std::mutex> hold(fLock);
		Class& entry = fClasses[sizeClass];
		if (entry.count == kStoredArraysPerClass ||
		    fBytes + ClassBytes(sizeClass) > kMaxStoredBytes)
			return false;
		entry.arrays[entry.count++] = array;
		fBytes += ClassBytes(sizeClass);
		return true;
	}

	size_t Bytes()
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fBytes;
	}

	size_t Count(int sizeClass)
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fClasses[sizeClass].count;
	}

	// Around fork() (see ProcessStore.h).
	void LockAll() { fLock.lock(); }
	void UnlockAll() { fLock.unlock(); }

private:
	struct Class
	{
		size_t count = 0;
		void* arrays[kStoredArraysPerClass] = {};
	};

	std::mutex fLock;
	// Guarded by fLock.
	Class fClasses[kClassCount];
	size_t fBytes = 0;
};

// Never destroyed: arrays may be freed by threads that end after static
// destructors have run.
Store& TheStore()
{
	return TheProcessStore<Store>();
}

} // namespace

void* AllocateArray(size_t bytes)
{
	if (bytes <= kMaxCachedBlock)
		return AllocateBlock(bytes);
	if (!Stored(bytes))
		return ::operator new(bytes);
	const int sizeClass = ClassOf(bytes);
	void* array = TheStore().Take(sizeClass);
	return array != nullptr ? array : ::operator new(ClassBytes(sizeClass));
}

void FreeArray(void* array, size_t bytes)
{
	if (array == nullptr)
		return;
	if (bytes <= kMaxCachedBlock) {
		FreeBlock(array, bytes);
		return;
	}
	if (!Stored(bytes) || !TheStore().Put(array, ClassOf(bytes)))
		::operator delete(array);
}

size_t StoredArrayBytes()
{
	return TheStore().Bytes();
}

size_t StoredArrays(size_t bytes)
{
	return Stored(bytes) ? TheStore().Count(ClassOf(bytes)) : 0;
}

} // namespace zvkit::internal
