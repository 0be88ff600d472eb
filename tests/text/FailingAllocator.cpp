// FailingAllocator.cpp: the replaceable global array new and delete, with a
// count-down to one failure.
#include "FailingAllocator.h"

#include <stdlib.h>

#include <atomic>
#include <new>

namespace {

std::atomic<long> sCountdown(-1);
std::atomic<bool> sFailed(false);

bool ShouldFail()
{
	long count = sCountdown.load();
	while (count >= 0) {
		if (sCountdown.compare_exchange_weak(count, count - 1))
			return count == 0;
	}
	return false;
}

void* Allocate(size_t size)
{
	if (ShouldFail()) {
		sFailed = true;
		return nullptr;
	}
	return malloc(size != 0 ? size : 1);
}

} // namespace

namespace failing {

void FailAfter(long count)
{
	sFailed = false;
	sCountdown = count;
}

bool Failed()
{
	return sFailed;
}

} // namespace failing

void* operator new[](size_t size)
{
	void* block = Allocate(size);
	if (block == nullptr)
		throw std::bad_alloc();
	return block;
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
	return Allocate(size);
}

void operator delete[](void* block) noexcept
{
	free(block);
}

void operator delete[](void* block, size_t) noexcept
{
	free(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept
{
	free(block);
}
