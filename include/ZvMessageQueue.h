// ZvMessageQueue.h: a looper's inbox.
//
// A first-in first-out queue of ZvMessage pointers, guarded by its own
// recursive lock (the ZvLocker base), with a soft bound on its length kept
// by a semaphore named "_item_limit" (count 1 at the start):
//
//  - AddMessage blocks only while the queue holds more than the limit; the
//    first adder that finds it over the limit passes on the semaphore's
//    initial unit;
//  - each RemoveMessage that leaves the queue at or above the limit lets one
//    blocked adder through, which then appends whatever the count.
//
// Units are released only by removals that leave the queue at or above the
// limit. When several adders wait at once and the remover takes the queue
// below the limit before the woken ones have appended, the others keep
// waiting until the queue next reaches the limit; with a single adder this
// cannot happen.
//
// Storage: a ring of slots that doubles when full and halves when a quarter
// full, so taking the oldest message costs the same whatever the queue's
// length (a list that moves its entries down would make a long queue slow to
// drain just when the looper most needs to catch up).
//
// Ownership: the queue owns the messages it holds; RemoveMessage hands the
// oldest one to the caller. Messages still queued when the queue is destroyed
// are deleted with it.
//
// Thread safety: any number of threads may add and remove at once.
// CountItems and IsEmpty read without locking (a snapshot). Destroying the
// queue while a thread is still inside AddMessage is the caller's error.
#ifndef _ZV_MESSAGE_QUEUE_H
#define _ZV_MESSAGE_QUEUE_H

#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvLocker.h>

#include <atomic>

class ZvMessage;

class ZV_EXPORT ZvMessageQueue : public ZvLocker
{
public:
	explicit ZvMessageQueue(int32 limit);
	// Kills the lock, deletes "_item_limit", then deletes the messages still
	// queued, oldest first.
	virtual ~ZvMessageQueue();

	// Appends message and takes ownership of it. When the queue's lock
	// cannot be taken the message is neither queued nor deleted (it stays
	// the caller's).
	void AddMessage(ZvMessage* message);
	// As AddMessage, and tells whether the message was queued: on false the
	// caller still owns it and must delete it.
	bool TryAddMessage(ZvMessage* message);
	// The oldest message, now owned by the caller; null when the queue is
	// empty or its lock could not be taken.
	ZvMessage* RemoveMessage();

	int32 CountItems() const;
	bool IsEmpty() const;

private:
	// The slot of the message at position (0: the oldest).
	ZvMessage*& _SlotAt(int32 position) const;
	// Brings the count messages now behind the head towards the remover's
	// cache (the first few of them).
	void _PrefetchAhead(int32 count) const;
	// Resizes the ring to slots (a power of two, at least the count),
	// keeping the messages in order from index 0.
	void _Resize(int32 slots);

	// The ring, its size (0 or a power of two) and the slot of the oldest
	// message; guarded by the queue's lock.
	ZvMessage** fSlots;
	int32 fSlotCount;
	int32 fHead;
	uint32 fLimitSem;
	int32 fLimit;
	// The number queued: written only under the queue's lock, and atomic
	// so that CountItems and IsEmpty can read it from any thread without it.
	std::atomic<int32> fCount;
};

#endif // _ZV_MESSAGE_QUEUE_H
