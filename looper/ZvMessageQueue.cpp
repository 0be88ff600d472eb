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
    : ZvLocker(), fSlots(nullptr), fSlotCount(0), fHead(0), fLimitSem(0), fLimit(limit), fCount(0)
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
	const int32 count = fCount.load(std::memory_order_relaxed);
	for (int32 i = 0; i < count; i++)
		delete _SlotAt(i);
	delete[] fSlots;
	fSlots = nullptr;
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

	if (fCount.load(std::memory_order_relaxed) > fLimit) {
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

	const int32 count = fCount.load(std::memory_order_relaxed);
	if (count == fSlotCount)
		_Resize(fSlotCount == 0 ? kMinSlots : fSlotCount * 2);
	_SlotAt(count) = message;
	fCount.store(count + 1, std::memory_order_relaxed);
	Unlock();
	return true;
}

ZvMessage* ZvMessageQueue::RemoveMessage()
{
	if (!Lock())
		return nullptr;

	ZvMessage* message = nullptr;
	int32 count = fCount.load(std::memory_order_relaxed);
	if (count > 0) {
		message = _SlotAt(0);
		fHead = (fHead + 1) & (fSlotCount - 1);
		count -= 1;
		fCount.store(count, std::memory_order_relaxed);
		_PrefetchAhead(count);
		// Halving at a quarter full gives back what a burst took without
		// resizing back and forth around one length.
		if (fSlotCount > kMinSlots && count <= fSlotCount / 4)
			_Resize(fSlotCount / 2);
	}
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

ZvMessage*& ZvMessageQueue::_SlotAt(int32 position) const
{
	return fSlots[(fHead + position) & (fSlotCount - 1)];
}

void ZvMessageQueue::_PrefetchAhead(int32 count) const
{
	// Messages made on another thread are cold in the remover's cache: ask
	// for the next few while the one taken is handled, so that they are on
	// their way when their turn comes. A prefetch never faults, so it reads
	// nothing of the messages themselves.
	for (int32 i = 0; i < MIN(count, kPrefetched); i++)
		__builtin_prefetch(_SlotAt(i));
}

void ZvMessageQueue::_Resize(int32 slots)
{
	ZvMessage** fresh = new ZvMessage*[slots]();
	const int32 count = fCount.load(std::memory_order_relaxed);
	for (int32 i = 0; i < count; i++)
		fresh[i] = _SlotAt(i);
	delete[] fSlots;
	fSlots = fresh;
	fSlotCount = slots;
	fHead = 0;
}
