// ZvMessageQueue: the looper's first-in first-out inbox with a soft bound.

#include <ZvMessageQueue.h>

#include <ZvMessage.h>
#include <ZvSemaphore.h>

namespace {

const int32 kQueueListStep = 16;

} // namespace

ZvMessageQueue::ZvMessageQueue(int32 limit)
    : ZvLocker(), fMessages(kQueueListStep), fLimitSem(0), fLimit(limit), fCount(0)
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
	while (fMessages.CountItems() > 0)
		delete fMessages.RemoveItem(0);
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

	if (fMessages.CountItems() > fLimit) {
		// Over the bound: wait for a remover with the queue's lock released,
		// so that the remover can take it. One unit of "_item_limit" lets one
		// adder through, which then appends whatever the count: the count is
		// deliberately not tested again, that is what makes the bound soft.
		Unlock();
		ZvSemaphore::Acquire(fLimitSem, -1);
		// The lock can only be gone here if the queue is being destroyed
		// under the adder's feet; then the list is not touched.
		if (!Lock())
			return false;
	}

	fMessages.AddItem(message);
	fCount.store(fMessages.CountItems(), std::memory_order_relaxed);
	Unlock();
	return true;
}

ZvMessage* ZvMessageQueue::RemoveMessage()
{
	if (!Lock())
		return nullptr;

	ZvMessage* message = fMessages.RemoveItem(0);
	const int32 count = fMessages.CountItems();
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
