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
// drain just when the looper most needs to catch up). A looper takes its
// messages out of the ring in batches; a taken message counts as queued
// until the looper's turn for it comes, so the count and the bound behave
// as if it were removed then. The count is the difference of two running
// totals, one written by adders and one by the remover, so that the two
// sides do not write one shared line per message. The object is aligned to
// a cache line: the lock, the ring and the adders' total; the bound; the
// removers' total; and the looper's taken messages each have lines of
// their own.
//
// Release policy (an addition; the default keeps the rule above): with
// ZV_QUEUE_RELEASE_BELOW_BOUND, a removal that leaves the queue below the
// limit also lets one blocked adder through, as long as some adder is
// blocked and not yet let through. Under the default rule, adders that all
// block while the remover drains the queue below the limit stay blocked
// until other threads bring the queue back to the limit, which may never
// happen; under the opt-in policy a bounded queue never strands them.
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

// How removals release adders blocked on the bound (see above).
enum zv_queue_policy
{
	// A removal releases one unit of "_item_limit" when it leaves the queue
	// at or above the limit, and only then.
	ZV_QUEUE_SOFT_BOUND = 0,
	// As ZV_QUEUE_SOFT_BOUND, and a removal that leaves the queue below the
	// limit releases one blocked adder too.
	ZV_QUEUE_RELEASE_BELOW_BOUND = 1
};

// A looper's bounded message queue; see the file's description.
class ZV_EXPORT ZvMessageQueue : public ZvLocker
{
public:
	// An empty queue with the soft bound limit and its "_item_limit"
	// semaphore.
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

	// The number of queued messages (a snapshot; messages the loop has
	// taken but not yet handed out still count).
	int32 CountItems() const;
	// Whether CountItems() is 0.
	bool IsEmpty() const;

	// Chooses the release policy; B_BAD_VALUE for an unknown one. Safe at
	// any time from any thread; removals after the call follow it.
	status_t SetPolicy(zv_queue_policy policy);
	// The release policy in force (ZV_QUEUE_SOFT_BOUND unless set).
	zv_queue_policy Policy() const;

	// Adders blocked on "_item_limit" right now (a snapshot).
	int32 CountBlockedAdders() const;

private:
	// The looper takes its messages through _TakeNext rather than
	// RemoveMessage (see "Taking for the loop" in ZvMessageQueue.cpp).
	friend class ZvLooper;

	// What RemoveMessage does, for the one thread that runs the loop: the
	// oldest message, now the caller's; null when none is queued or the
	// lock could not be taken. Calls must be serialised (the looper's lock
	// does that) and must not be mixed with RemoveMessage.
	ZvMessage* _TakeNext();
	// AddMessage with a bound on the wait for "_item_limit" (the rule of
	// the bound unchanged): B_OK when queued; B_WOULD_BLOCK (timeout 0) or
	// B_TIMED_OUT when the adder would have had to wait longer; B_ERROR
	// when the lock is gone. A negative timeout or B_INFINITE_TIMEOUT waits
	// as AddMessage does. On an error the caller still owns the message.
	status_t _AddMessageEtc(ZvMessage* message, bigtime_t timeout);
	// Lets count adders waiting on the bound through; for a looper whose
	// loop has ended, so that posters blocked there can leave.
	void _ReleaseAdders(int32 count);
	// Moves the oldest messages of the ring, up to kTakenMax, to the taken
	// ones, under the queue's lock; false when the lock could not be taken.
	bool _TakeBatch();
	// Takes the count oldest messages off the ring (the caller has read
	// them), and halves the ring when it is a quarter full.
	void _DropOldest(int32 count);
	// Counts one message out of the queue and applies the bound's rule to
	// the count it leaves; for the loop, without the queue's lock.
	void _CountRemoval();
	// The same with the queue's lock held (no add in progress).
	void _CountRemovalLocked();
	// The number queued, read with the queue's lock held.
	int32 _CountLocked() const;
	// With the lock held, the count that the removal numbered removed left:
	// adds from the first that saw it on do not count.
	int32 _LeftAfter(uint32 removed) const;
	// The bound's rule: a removal that leaves left messages queued releases
	// "_item_limit" when that is at or above the limit.
	void _ReleaseAtLimit(int32 left);
	// Takes one from fUncovered when it is above 0; false when it is not.
	bool _Cover();
	// Under ZV_QUEUE_RELEASE_BELOW_BOUND, lets through every blocked adder
	// that no unit covers yet; the looper calls it before it sleeps.
	void _ReleaseUncovered();
	// Whether an add now would block: the queue is over the limit and no
	// unit of "_item_limit" is left.
	bool _WouldBlock() const;
	// Whether adders are blocked on the bound with no unit of "_item_limit"
	// left to let any of them through.
	bool _AddersStranded() const;
	// The slot of the message at position (0: the oldest).
	ZvMessage*& _SlotAt(int32 position) const;
	// Brings the lines of one step (a kPrefetch... value) of the message at
	// position of the taken ones towards the remover's cache, when there is
	// such a message.
	void _PrefetchTaken(int32 position, int32 step) const;
	// Resizes the ring to slots (a power of two, at least the count),
	// keeping the messages in order from index 0.
	void _Resize(int32 slots);

	static constexpr int32 kTakenMax = 32;
	static constexpr int32 kPrefetchObject = 0;
	static constexpr int32 kPrefetchList = 1;
	static constexpr int32 kPrefetchItems = 2;

	// The ring, its size (0 or a power of two), the slot of the oldest
	// message and how many it holds; guarded by the queue's lock. With the
	// lock's own fields and the adders' counters they fill the object's first
	// cache line, which every add and every batch taken reads and writes.
	ZvMessage** fSlots;
	int32 fSlotCount;
	int32 fHead;
	int32 fQueued;

	// The count is kept as two running totals, each written by one side:
	// messages ever added (fAdded, by adders under the lock) and ever removed
	// (fRemoved, by the remover). The number queued is their difference
	// (modulo 2^32). An adder compares the count with the bound only through
	// fRemovedSeen, the last fRemoved it read, which can only overstate the
	// count; it reads fRemoved again only when that overstated count is over
	// the bound. fAddedAtSeen is fAdded when fRemovedSeen was last raised
	// (see _CountRemovalLocked). All three written under the lock.
	std::atomic<uint32> fAdded;
	uint32 fRemovedSeen;
	uint32 fAddedAtSeen;
	// fAdded never passes fCeiling; adders raise it, by a stride, before
	// fAdded would pass it, so that a remover can tell from this rarely
	// written value that the queue is far below the bound.
	uint32 fCeilingOwn;
	uint32 fCeilingStride;

	// The bound, its semaphore, the adders' ceiling (see fCeilingOwn) and the
	// blocking path's counts: read by the remover at each removal and
	// written only now and then.
	alignas(64) const int32 fLimit;
	uint32 fLimitSem;
	std::atomic<uint32> fCeiling;
	// Adders between their decision to wait on "_item_limit" and the end of
	// that wait; and those of them that no release has covered yet (the
	// opt-in policy releases only for these). Touched only on the blocking
	// path and by removals under the opt-in policy.
	std::atomic<int32> fBlocked;
	std::atomic<int32> fUncovered;
	std::atomic<int32> fPolicy;

	// Messages ever removed (see fAdded), and the last fAdded the remover
	// read, which can only understate the count; both on the remover's line.
	alignas(64) std::atomic<uint32> fRemoved;
	uint32 fAddedSeen;

	// Messages taken out of the ring by _TakeBatch and not yet handed out
	// by _TakeNext, oldest at fTakenHead; used by the loop's thread only.
	alignas(64) ZvMessage* fTaken[kTakenMax];
	int32 fTakenHead;
	int32 fTakenCount;
};

#endif // _ZV_MESSAGE_QUEUE_H
