// ZvMessageQueue: the looper's first-in first-out inbox with a soft bound.

#include <ZvMessageQueue.h>

#include <ZvMessage.h>
#include <ZvSemaphore.h>

#include <OS.h>

#include "base/internal/Semaphores.h"

using zvkit::internal::kNoSemaphore;

// Taking for the loop.
//
// A looper's loop removes one message per unit of "fLooperAccess", and a
// poster adds one per post, each under the queue's lock: while both run,
// the lock, and the line that holds it, changes hands twice per message.
// So the loop takes the messages it will need from the ring in batches
// (_TakeBatch, under the lock) and hands them out one by one (_TakeNext,
// without it). A taken message still counts as queued until it is handed
// out: the count falls, and "_item_limit" is released when it stays at or
// above the limit, at the moment _TakeNext hands it out, exactly as
// RemoveMessage would have done then. Adders test the count under the lock
// as before, so they block, and pass, as they would if the loop removed the
// messages one at a time; only the lock is taken less often.
//
// Counting without a shared counter.
//
// A single count that adders raise and the loop lowers would move between
// the two processors at every message. Instead each side keeps its own
// running total (fAdded, fRemoved) on its own line, and reads the other's
// only when its decision depends on it:
//  - an adder blocks only when the count is over the bound; its last view
//    of fRemoved overstates the count, so while that view is not over the
//    bound it does not read fRemoved at all;
//  - the loop releases "_item_limit" only when the count it leaves is at
//    or above the bound; its last view of fAdded understates that count,
//    so it reads fAdded only when that view leaves it below the bound and
//    fCeiling (raised by adders once per stride, an overstatement) does
//    not; fCeiling, read again, spares it a second read after its removal
//    when that is below the bound too.
// When the loop must read fAdded, an add that completes during its removal
// makes the order of the two open; one such add gives a count that some
// order of the two produces, more than one sends the loop to the lock,
// where the adders' record of when they last saw fRemoved settles it.

namespace {

// The ring's smallest size; it never shrinks below this once allocated.
const int32 kMinSlots = 16;
// How far ahead of the message handed out the loop asks for the lines of
// the messages that follow (see _PrefetchTaken): a message's own lines
// first, its slot array two messages later, its items two more later, each
// step reading what the one before brought in.
const int32 kObjectsAhead = 6;
const int32 kListsAhead = 4;
const int32 kItemsAhead = 2;

} // namespace

ZvMessageQueue::ZvMessageQueue(int32 limit)
    : ZvLocker(), fSlots(nullptr), fSlotCount(0), fHead(0), fQueued(0), fAdded(0), fRemovedSeen(0),
      fAddedAtSeen(0), fCeilingOwn(0), fCeilingStride(0), fLimit(limit), fLimitSem(kNoSemaphore),
      fCeiling(0), fBlocked(0), fUncovered(0), fPolicy(ZV_QUEUE_SOFT_BOUND), fRemoved(0),
      fAddedSeen(0), fTaken(), fTakenHead(0), fTakenCount(0)
{
	// Half the bound: the loop reads fAdded only once the queue is that
	// long; a cap keeps the adders' raises rare for huge bounds.
	fCeilingStride = static_cast<uint32>(limit > 2 ? MIN(limit / 2, 1 << 16) : 0);
	fLimitSem = ZvSemaphore::Create(1, "_item_limit");
}

ZvMessageQueue::~ZvMessageQueue()
{
	// Threads blocked on the queue's lock fail from here on.
	Kill();
	if (fLimitSem != kNoSemaphore)
		ZvSemaphore::Delete(fLimitSem);
	fLimitSem = kNoSemaphore;
	// Oldest first: the taken ones came out of the ring before the rest.
	for (int32 i = 0; i < fTakenCount; i++)
		delete fTaken[fTakenHead + i];
	fTakenCount = 0;
	for (int32 i = 0; i < fQueued; i++)
		delete _SlotAt(i);
	delete[] fSlots;
	fSlots = nullptr;
	fQueued = 0;
	fRemoved.store(fAdded.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void ZvMessageQueue::AddMessage(ZvMessage* message)
{
	TryAddMessage(message);
}

bool ZvMessageQueue::TryAddMessage(ZvMessage* message)
{
	return _AddMessageEtc(message, B_INFINITE_TIMEOUT) == B_OK;
}

status_t ZvMessageQueue::_AddMessageEtc(ZvMessage* message, bigtime_t timeout)
{
	if (!Lock())
		return B_ERROR;

	uint32 added = fAdded.load(std::memory_order_relaxed);
	if (static_cast<int32>(added - fRemovedSeen) > fLimit) {
		// The view overstates the count: look at the removals again.
		const uint32 removed = fRemoved.load(std::memory_order_seq_cst);
		if (removed != fRemovedSeen) {
			fRemovedSeen = removed;
			fAddedAtSeen = added;
		}
	}
	if (static_cast<int32>(added - fRemovedSeen) > fLimit) {
		// Over the bound: wait for a remover with the queue's lock released,
		// so that the remover can take it. One unit of "_item_limit" lets one
		// adder through, which then appends whatever the count: the count is
		// deliberately not tested again, that is what makes the bound soft.
		// Counted as blocked before the lock is let go, so that a removal
		// under the opt-in policy that follows sees this adder.
		fBlocked.fetch_add(1);
		fUncovered.fetch_add(1);
		Unlock();
		if (timeout < 0 || timeout == B_INFINITE_TIMEOUT) {
			ZvSemaphore::Acquire(fLimitSem, -1);
		} else {
			// Only a wait that ran out refuses the message; any other failure
			// goes on as the unbounded wait does.
			const status_t waited =
			    acquire_sem_etc(static_cast<sem_id>(fLimitSem), 1, B_RELATIVE_TIMEOUT, timeout);
			if (waited == B_TIMED_OUT) {
				// No longer waiting: this adder is not blocked and needs no
				// unit. A unit already released for it stays on the
				// semaphore and lets the next adder through, as any unit
				// released while nobody waits does.
				fBlocked.fetch_sub(1);
				_Cover();
				return timeout == 0 ? B_WOULD_BLOCK : B_TIMED_OUT;
			}
		}
		fBlocked.fetch_sub(1);
		// The lock can only be gone here if the queue is being destroyed
		// under the adder's feet; then the ring is not touched.
		if (!Lock())
			return B_ERROR;
	}

	if (fQueued == fSlotCount)
		_Resize(fSlotCount == 0 ? kMinSlots : fSlotCount * 2);
	_SlotAt(fQueued) = message;
	fQueued++;
	// Other adders may have added while this one waited.
	added = fAdded.load(std::memory_order_relaxed);
	if (static_cast<int32>(added + 1 - fCeilingOwn) > 0) {
		// The ceiling goes up before the total passes it.
		fCeilingOwn = added + 1 + fCeilingStride;
		fCeiling.store(fCeilingOwn, std::memory_order_seq_cst);
	}
	fAdded.store(added + 1, std::memory_order_release);
	Unlock();
	return B_OK;
}

void ZvMessageQueue::_ReleaseAdders(int32 count)
{
	if (count > 0 && fLimitSem != kNoSemaphore)
		release_sem_etc(static_cast<sem_id>(fLimitSem), count, 0);
}

ZvMessage* ZvMessageQueue::RemoveMessage()
{
	if (!Lock())
		return nullptr;

	ZvMessage* message = nullptr;
	if (fQueued > 0) {
		message = _SlotAt(0);
		_DropOldest(1);
		_CountRemovalLocked();
	} else {
		// A removal that finds the queue empty follows the same rule: with a
		// bound of 0 or less every call releases.
		_ReleaseAtLimit(_CountLocked());
	}

	Unlock();
	return message;
}

int32 ZvMessageQueue::CountItems() const
{
	// The difference of the two totals at one moment: fRemoved the same
	// before and after fAdded is read means both held at that read.
	uint32 removed = fRemoved.load(std::memory_order_seq_cst);
	for (;;) {
		const uint32 added = fAdded.load(std::memory_order_seq_cst);
		const uint32 again = fRemoved.load(std::memory_order_seq_cst);
		if (again == removed)
			return static_cast<int32>(added - removed);
		removed = again;
	}
}

int32 ZvMessageQueue::_CountLocked() const
{
	// No add is in progress, and the removers are serialised: both totals
	// are still.
	return static_cast<int32>(fAdded.load(std::memory_order_relaxed) -
	                          fRemoved.load(std::memory_order_relaxed));
}

bool ZvMessageQueue::IsEmpty() const
{
	return CountItems() == 0;
}

ZvMessage* ZvMessageQueue::_TakeNext()
{
	if (fTakenCount == 0 && (!_TakeBatch() || fTakenCount == 0))
		return nullptr;

	const int32 head = fTakenHead;
	ZvMessage* message = fTaken[head];
	fTakenHead++;
	fTakenCount--;
	_PrefetchTaken(head + kObjectsAhead, kPrefetchObject);
	_PrefetchTaken(head + kListsAhead, kPrefetchList);
	_PrefetchTaken(head + kItemsAhead, kPrefetchItems);
	// The removal proper (see "Counting without a shared counter").
	_CountRemoval();
	return message;
}

bool ZvMessageQueue::_TakeBatch()
{
	if (!Lock())
		return false;

	const int32 taken = MIN(fQueued, kTakenMax);
	for (int32 i = 0; i < taken; i++)
		fTaken[i] = _SlotAt(i);
	if (taken > 0)
		_DropOldest(taken);
	else // As RemoveMessage on an empty queue.
		_ReleaseAtLimit(_CountLocked());
	fTakenHead = 0;
	fTakenCount = taken;

	Unlock();
	// The first messages get each step at once (see _TakeNext).
	for (int32 i = 0; i < kObjectsAhead; i++)
		_PrefetchTaken(i, kPrefetchObject);
	for (int32 i = 0; i < kListsAhead; i++)
		_PrefetchTaken(i, kPrefetchList);
	for (int32 i = 0; i < kItemsAhead; i++)
		_PrefetchTaken(i, kPrefetchItems);
	return true;
}

void ZvMessageQueue::_DropOldest(int32 count)
{
	fHead = (fHead + count) & (fSlotCount - 1);
	fQueued -= count;
	// Halving at a quarter full gives back what a burst took without
	// resizing back and forth around one length.
	if (fSlotCount > kMinSlots && fQueued <= fSlotCount / 4)
		_Resize(fSlotCount / 2);
}

void ZvMessageQueue::_CountRemoval()
{
	const uint32 removed = fRemoved.load(std::memory_order_relaxed) + 1;
	// Messages added before this removal are at least the last fAdded seen:
	// when that leaves the queue at or above the bound, it is so.
	uint32 added = fAddedSeen;
	// fAdded is on the adders' line, written at every add: it is read only
	// when the ceiling, written once a stride, does not already show the
	// queue below the bound. The ceiling is read again below, after this
	// removal is published, and that read decides as before; the early one
	// only spares the read of fAdded, whose value could not have reached
	// the bound then. An old view of fAdded is still one read before the
	// removal was published, which is all the rest assumes of it.
	if (static_cast<int32>(added - removed) < fLimit &&
	    static_cast<int32>(fCeiling.load(std::memory_order_relaxed) - removed) >= fLimit)
		added = fAddedSeen = fAdded.load(std::memory_order_seq_cst);
	if (static_cast<int32>(added - removed) >= fLimit) {
		fRemoved.store(removed, std::memory_order_release);
		_ReleaseAtLimit(static_cast<int32>(added - removed));
		return;
	}

	fRemoved.store(removed, std::memory_order_seq_cst);
	// fAdded never passes the ceiling: below the bound by it, the count left
	// is below it too, whatever adders did meanwhile.
	const uint32 ceiling = fCeiling.load(std::memory_order_seq_cst);
	if (static_cast<int32>(ceiling - removed) < fLimit) {
		_ReleaseAtLimit(static_cast<int32>(ceiling - removed));
		return;
	}
	const uint32 now = fAdded.load(std::memory_order_seq_cst);
	if (now - added <= 1) {
		// At most one add completed during the removal: counting it or not
		// gives what the removal saw in one order of the two or the other
		// (it would have to count for the bound in both to make them
		// differ, at once over it for the adder and at it for the loop).
		fAddedSeen = now;
		_ReleaseAtLimit(static_cast<int32>(now - removed));
		return;
	}
	// Several adds raced with the removal: count those that decided before
	// it, from the adders' record, with the lock held.
	if (!Lock()) {
		_ReleaseAtLimit(static_cast<int32>(now - removed));
		return;
	}
	const int32 left = _LeftAfter(removed);
	Unlock();
	_ReleaseAtLimit(left);
}

void ZvMessageQueue::_CountRemovalLocked()
{
	const uint32 removed = fRemoved.load(std::memory_order_relaxed) + 1;
	fRemoved.store(removed, std::memory_order_seq_cst);
	_ReleaseAtLimit(_LeftAfter(removed));
}

int32 ZvMessageQueue::_LeftAfter(uint32 removed) const
{
	// Adds from the first one that saw this removal come after it; those
	// before it, whatever view of fRemoved they used, count as queued then.
	if (fRemovedSeen == removed)
		return static_cast<int32>(fAddedAtSeen - removed);
	return static_cast<int32>(fAdded.load(std::memory_order_relaxed) - removed);
}

void ZvMessageQueue::_ReleaseAtLimit(int32 left)
{
	// One unit of "_item_limit" per removal that leaves the queue at or
	// above its bound.
	if (left >= fLimit) {
		ZvSemaphore::Release(fLimitSem);
		// The unit covers one blocked adder, if any is waiting for one.
		if (fUncovered.load(std::memory_order_relaxed) > 0)
			_Cover();
		return;
	}
	// Below the bound: the opt-in policy lets one uncovered adder through.
	if (fPolicy.load(std::memory_order_relaxed) == ZV_QUEUE_RELEASE_BELOW_BOUND &&
	    fUncovered.load(std::memory_order_relaxed) > 0 && _Cover())
		ZvSemaphore::Release(fLimitSem);
}

bool ZvMessageQueue::_Cover()
{
	int32 uncovered = fUncovered.load();
	while (uncovered > 0) {
		if (fUncovered.compare_exchange_weak(uncovered, uncovered - 1))
			return true;
	}
	return false;
}

void ZvMessageQueue::_ReleaseUncovered()
{
	if (fPolicy.load(std::memory_order_relaxed) != ZV_QUEUE_RELEASE_BELOW_BOUND)
		return;
	while (fUncovered.load() > 0 && _Cover())
		ZvSemaphore::Release(fLimitSem);
}

bool ZvMessageQueue::_WouldBlock() const
{
	if (CountItems() <= fLimit)
		return false;
	int32 units = 0;
	return get_sem_count(static_cast<sem_id>(fLimitSem), &units) == B_OK && units <= 0;
}

bool ZvMessageQueue::_AddersStranded() const
{
	if (fBlocked.load() <= 0)
		return false;
	int32 units = 0;
	if (get_sem_count(static_cast<sem_id>(fLimitSem), &units) != B_OK)
		return false;
	return units <= 0;
}

status_t ZvMessageQueue::SetPolicy(zv_queue_policy policy)
{
	if (policy != ZV_QUEUE_SOFT_BOUND && policy != ZV_QUEUE_RELEASE_BELOW_BOUND)
		return B_BAD_VALUE;
	fPolicy.store(policy);
	// Adders already stranded under the old rule are let through now.
	if (policy == ZV_QUEUE_RELEASE_BELOW_BOUND && CountItems() < fLimit)
		_ReleaseUncovered();
	return B_OK;
}

zv_queue_policy ZvMessageQueue::Policy() const
{
	return static_cast<zv_queue_policy>(fPolicy.load(std::memory_order_relaxed));
}

int32 ZvMessageQueue::CountBlockedAdders() const
{
	return fBlocked.load();
}

ZvMessage*& ZvMessageQueue::_SlotAt(int32 position) const
{
	return fSlots[(fHead + position) & (fSlotCount - 1)];
}

void ZvMessageQueue::_PrefetchTaken(int32 position, int32 step) const
{
	// Messages made on another thread are cold in the remover's cache, and
	// a lookup in one goes from the message to its slot array to an item:
	// three misses, one after the other. So while the one handed out is
	// handled, the lines of the next few are asked for, each step for a
	// message whose lines of the step before were asked for two messages
	// earlier and are in by now. Only taken messages are read; nobody else
	// touches them until they are handed out.
	if (position >= fTakenHead + fTakenCount)
		return;
	const ZvMessage* message = fTaken[position];
	switch (step) {
	case kPrefetchObject:
		// Lookups read the start, deletion the end (a message may span two
		// lines).
		__builtin_prefetch(message);
		__builtin_prefetch(reinterpret_cast<const char*>(message) + sizeof(ZvMessage) - 1);
		break;
	case kPrefetchList:
		message->_PrefetchList();
		break;
	default:
		message->_PrefetchItems();
		break;
	}
}

void ZvMessageQueue::_Resize(int32 slots)
{
	ZvMessage** fresh = new ZvMessage*[slots]();
	for (int32 i = 0; i < fQueued; i++)
		fresh[i] = _SlotAt(i);
	delete[] fSlots;
	fSlots = fresh;
	fSlotCount = slots;
	fHead = 0;
}
