// ZvMessageQueue: the looper's first-in first-out inbox with a soft bound.

#include <ZvMessageQueue.h>

#include <ZvMessage.h>
#include <ZvSemaphore.h>

namespace {

// The ring's smallest size; it never shrinks below this once allocated.
const int32 kMinSlots = 16;
// Messages behind the head asked for ahead of their turn.
const int32 kPrefetched = 3;

} // namespace

ZvMessageQueue::ZvMessageQueue(int32 limit)
    : ZvLocker(), fSlots(nullptr), fSlotCount(0), fHead(0), fQueued(0), fLimitSem(0), fLimit(limit),
      fCount(0)
{
	fLimitSem = ZvSemaphore::Create(1, "_item_limit");
}

ZvMessageQueue::~ZvMessageQueue()
{
	// Threads blocked on the queue's lock fail from here on.
	Kill();
	if (fLimitSem != 0)
		ZvSemaphore::Delete(fLimitSem);
	fLimitSem = 0;
	// Oldest first.
	for (int32 i = 0; i < fQueued; i++)
		delete fSlots[(fHead + i) & (fSlotCount - 1)];
	delete[] fSlots;
	fSlots = nullptr;
	fQueued = 0;
	fCount.store(0, std::memory_order_relaxed);
}

void ZvMessageQueue::AddMessage(ZvMessage* message)
{
	TryAddMessage(message);
}

bool ZvMessageQueue::TryAddMessage(ZvMessage* message)
{
	if (!Lock())
		return false;

	if (fQueued > fLimit) {
		// Over the bound: wait for a remover with the queue's lock released,
		// so that the remover can take it. One unit of "_item_limit" lets one
		// adder through, which then appends whatever the count: the count is
		// deliberately not tested again, that is what makes the bound soft.
		Unlock();
		ZvSemaphore::Acquire(fLimitSem, -1);
		// The lock can only be gone here if the queue is being destroyed
		// under the adder's feet; then the ring is not touched.
		if (!Lock())
			return false;
	}

	if (fQueued == fSlotCount)
		_Resize(fSlotCount == 0 ? kMinSlots : fSlotCount * 2);
	fSlots[(fHead + fQueued) & (fSlotCount - 1)] = message;
	fQueued += 1;
	fCount.store(fQueued, std::memory_order_relaxed);
	Unlock();
	return true;
}

ZvMessage* ZvMessageQueue::RemoveMessage()
{
	if (!Lock())
		return nullptr;

	ZvMessage* message = nullptr;
	if (fQueued > 0) {
		message = fSlots[fHead];
		fHead = (fHead + 1) & (fSlotCount - 1);
		fQueued -= 1;
		_PrefetchAhead();
		// Halving at a quarter full gives back what a burst took without
		// resizing back and forth around one length.
		if (fSlotCount > kMinSlots && fQueued <= fSlotCount / 4)
			_Resize(fSlotCount / 2);
	}
	const int32 count = fQueued;
	fCount.store(count, std::memory_order_relaxed);
	// One unit per removal that leaves the queue at or above its bound, also
	// when nothing was removed: with a bound of 0 or less every call
	// releases.
	if (count >= fLimit)
		ZvSemaphore::Release(fLimitSem);

	Unlock();
	return message;
}

int32 ZvMessageQueue::CountItems() const
{
	return fCount.load(std::memory_order_relaxed);
}

bool ZvMessageQueue::IsEmpty() const
{
	return CountItems() == 0;
}

void ZvMessageQueue::_PrefetchAhead() const
{
	// Messages made on another thread are cold in the remover's cache: ask
	// for the next few while the one taken is handled, so that they are on
	// their way when their turn comes. A prefetch never faults, so it reads
	// nothing of the messages themselves.
	const int32 mask = fSlotCount - 1;
	for (int32 i = 0; i < MIN(fQueued, kPrefetched); i++)
		__builtin_prefetch(fSlots[(fHead + i) & mask]);
}

void ZvMessageQueue::_Resize(int32 slots)
{
	ZvMessage** fresh = new ZvMessage*[slots]();
	for (int32 i = 0; i < fQueued; i++)
		fresh[i] = fSlots[(fHead + i) & (fSlotCount - 1)];
	delete[] fSlots;
	fSlots = fresh;
	fSlotCount = slots;
	fHead = 0;
}
