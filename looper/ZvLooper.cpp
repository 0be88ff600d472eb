// ZvLooper: a message loop in a thread of its own, which deletes the looper
// when the loop ends.

#include <ZvLooper.h>

#include <ZvMessage.h>
#include <ZvMessageQueue.h>
#include <ZvSemaphore.h>

#include <OS.h>

#include "base/internal/Checks.h"
#include "base/internal/LockHolder.h"
#include "base/internal/Semaphores.h"
#include "base/internal/Spin.h"
#include "looper/internal/LiveLoopers.h"
#include "looper/internal/LooperControl.h"

#include <unordered_map>
#include <unordered_set>

using zvkit::internal::AcquireSemaphore;
using zvkit::internal::kNoSemaphore;
using zvkit::internal::LockHolder;
using zvkit::internal::LooperControl;
using zvkit::internal::PollFor;
using zvkit::internal::WaitResult;

// How Quit stays clear of a looper that its own thread has deleted.
//
// Quit runs in another thread and, in this order, deletes "fLooperAccess",
// kills the looper's lock, clears running and waits for the looper's thread.
// The moment "fLooperAccess" is gone the loop may end and the thread delete
// the looper, while Quit still has steps 2 to 4 to do; and a looper that
// ended through a "QUIT" message may be gone before Quit is even called
// (a caller's error, which Quit survives as long as no other looper was
// built at the same address since).
//
// Every looper therefore is entered, with its control block (see
// LooperControl.h), in a process-wide table of live loopers keyed by the
// looper's address:
//
//  - the table holds the block from the constructor until the looper's
//    death begins (in LooperCaller, before the delete, and in the
//    destructor for a looper that was never run);
//  - the block's end guard is held by Quit across its steps 1 to 3 and by
//    the "QUIT" path of DispatchMessage across the same steps; the death of
//    the looper takes the guard to mark the block dead, so it waits for
//    those steps to finish and they never overlap the delete;
//  - the block also keeps the thread identifier, so step 4 reads nothing
//    from the looper: Quit copies what it needs under the guard and waits
//    outside it (the thread is deleting the looper meanwhile).
//
// Quit looks its looper up by address and reads nothing from the object
// itself before it holds the guard of a block that is not dead: entered on
// a live looper, it is safe whenever the thread ends. The block is
// refcounted (the table and each Quit in flight hold a reference), so it
// outlives the looper as long as needed. Two threads may quit the same
// looper: the second finds the block dead, or the semaphore and lock
// already gone.

namespace zvkit::internal {

class HandlerSet
{
public:
	std::unordered_set<const ZvHandler*> handlers;
};

} // namespace zvkit::internal

using zvkit::internal::HandlerSet;

namespace {

const uint32 kQuitRequested = ZV_QUIT_REQUESTED;

// The loop polls for the next message before it sleeps when polling has
// been paying off. A sleep and its wake-up cost two system calls and, on
// many machines, tens of microseconds before the woken thread runs; a
// message that arrives while the loop polls costs neither. But polling only
// pays while the sender runs on another processor at the same time: where
// the two share one (a loaded machine, a virtual machine whose processors
// take turns), every poll keeps the sender off the processor for as long
// as it lasts. So the loop polls for at most kPollBudget microseconds; a
// poll that catches a message keeps polling on, one that does not turns it
// off, and it is tried again only after a run of short waits (a message
// that came soon after the loop went to sleep), twice as long a run after
// each poll that failed, up to 2^kMaxPollFailures waits. A wait is short up
// to kShortWait: what the loop measures includes its own wake-up, which
// alone can take tens of microseconds.
const bigtime_t kPollBudget = 20;
const bigtime_t kShortWait = 200;
const int32 kMaxPollFailures = 8;
// Units of "fLooperAccess" the loop takes at once when several messages wait.
const int32 kMaxTakenAhead = 32;
// How long the checked mode waits before it calls posters stranded on the
// bound (milliseconds).
const int32 kStallGraceMs = 100;

const char* const kPreferredHandlerField = "_preferredhandler";
const int32 kHandlerListStep = 16;
// How long an ending looper waits for the posters through refs before it
// lets blocked ones through again (see _Retire).
const bigtime_t kRetireWait = 100000;

// Handler lists at least this long are also kept as a set.
const int32 kHandlerSetThreshold = 16;

// Each entry holds a reference to the looper's control block.
struct LooperTable
{
	std::mutex lock;
	std::unordered_map<const ZvLooper*, LooperControl*> live;
};

// Never destroyed: looper threads may still end (and unregister) while the
// process runs its static destructors.
LooperTable& Table()
{
	static LooperTable* table = new LooperTable;
	return *table;
}

void Register(const ZvLooper* looper, LooperControl* control)
{
	control->Acquire();
	LooperTable& table = Table();
	std::lock_guard<std::mutex> hold(table.lock);
	table.live[looper] = control;
}

// The looper's block with a reference for the caller, or null when the
// looper is not in the table.
LooperControl* Find(const ZvLooper* looper)
{
	LooperTable& table = Table();
	std::lock_guard<std::mutex> hold(table.lock);
	auto found = table.live.find(looper);
	if (found == table.live.end())
		return nullptr;
	found->second->Acquire();
	return found->second;
}

// Takes the looper out of the table; its block with the table's
// reference, now the caller's, or null when it was not there.
LooperControl* Take(const ZvLooper* looper)
{
	LooperTable& table = Table();
	std::lock_guard<std::mutex> hold(table.lock);
	auto found = table.live.find(looper);
	if (found == table.live.end())
		return nullptr;
	LooperControl* control = found->second;
	table.live.erase(found);
	return control;
}

int32 LooperEntry(void* data)
{
	return ZvLooper::LooperCaller(static_cast<ZvLooper*>(data));
}

} // namespace

bool zvkit::internal::LooperIsLive(const ZvLooper* looper)
{
	if (looper == nullptr)
		return false;
	LooperTable& table = Table();
	std::lock_guard<std::mutex> hold(table.lock);
	return table.live.count(looper) != 0;
}

bool zvkit::internal::CheckLooperLive(const ZvLooper* looper, const char* member)
{
	if (looper == nullptr || LooperIsLive(looper))
		return true;
	CheckReport(member,
	            "looper %p has ended and been deleted (a stale link); the call is refused and "
	            "nothing is posted",
	            static_cast<const void*>(looper));
	return false;
}

ZvLooper::ZvLooper(const char* name, zv_thread_priority priority, int32 queueCapacity)
    : ZvHandler(name), ZvLocker(), fQueueCapacity(queueCapacity), fRunning(false),
      fPriority(priority), fPreferredHandler(nullptr), fHandlers(kHandlerListStep), fThread(0),
      fHandlerSet(nullptr), fControl(nullptr), fQueue(nullptr), fLooperAccess(kNoSemaphore),
      fCurrentMessage(nullptr), fPollFailures(0), fPollSkips(1), fStallReported(false)
{
	// Before AddHandler: attaching records the looper's block.
	fControl = new zvkit::internal::LooperControl(this);
	fQueue = new ZvMessageQueue(fQueueCapacity);
	fPreferredHandler = this;
	AddHandler(this);
	fLooperAccess.store(ZvSemaphore::Create(0, "fLooperAccess"), std::memory_order_release);
	Register(this, fControl);
}

ZvLooper::~ZvLooper()
{
	_Unregister();
	if (zvkit::internal::ChecksOn() && fQueue != nullptr && fQueue->CountItems() > 0) {
		zvkit::internal::CheckReport("ZvLooper::~ZvLooper",
		                             "looper \"%s\" ends with %d message(s) still queued; they are "
		                             "deleted without being delivered",
		                             Name() != nullptr ? Name() : "", fQueue->CountItems());
	}
	// A looper that was run has retired in its thread already.
	_Retire();
	delete fQueue;
	fQueue = nullptr;
	delete fHandlerSet;
	fHandlerSet = nullptr;
	// Only a looper that was never run (or never quit) still has its
	// semaphore here; delete it rather than leave it in the kernel's table.
	const uint32 access = fLooperAccess.exchange(kNoSemaphore, std::memory_order_acq_rel);
	if (access != kNoSemaphore)
		ZvSemaphore::Delete(access);
	// The handler base still holds its own reference until its destructor.
	fControl->Release();
	fControl = nullptr;
}

bool ZvLooper::Run()
{
	// A second thread would delete the looper a second time.
	if (fThread.load(std::memory_order_acquire) != 0)
		return false;

	const int32 thread = ZvThread::Create(&LooperEntry, this, fPriority, nullptr);
	fThread.store(static_cast<uint32>(thread), std::memory_order_release);
	fControl->SetThread(static_cast<uint32>(thread));
	fRunning.store(true, std::memory_order_relaxed);
	// From the resume on, the thread may end and delete this looper at any
	// time (a "QUIT" message may already be queued): only the local copy of
	// the identifier is used.
	return ZvThread::Resume(static_cast<uint32>(thread));
}

bool ZvLooper::Quit()
{
	LooperControl* control = Find(this);
	if (control == nullptr) {
		if (zvkit::internal::ChecksOn()) {
			zvkit::internal::CheckReport("ZvLooper::Quit",
			                             "looper %p has ended and been deleted (a stale link); "
			                             "Quit does nothing and returns false",
			                             static_cast<const void*>(this));
		}
		return false;
	}

	uint32 thread;
	{
		// While the guard is held the looper cannot be deleted: its death
		// waits for the guard before the delete (see the comment at the top).
		std::lock_guard<std::mutex> hold(control->EndGuard());
		if (!control->IsDead())
			_EndLoop();
		thread = control->Thread();
	}
	control->Release();

	// From here on the looper may be gone; only the copies are used.
	if (thread == ZvThread::CurrentID())
		return false;
	return ZvThread::Wait(thread, nullptr);
}

bool ZvLooper::QuitRequested()
{
	return true;
}

bool ZvLooper::PostMessage(uint32 what, const ZvHandler* handler)
{
	// One look at the checks flag per post; everything else is out of line.
	if (zvkit::internal::ChecksOn() && !_CheckPost(nullptr, handler))
		return true;
	_Post(new ZvMessage(what), handler);
	return true;
}

bool ZvLooper::PostMessage(const ZvMessage* message, const ZvHandler* handler)
{
	if (zvkit::internal::ChecksOn() && !_CheckPost(message, handler))
		return true;
	if (message != nullptr)
		_Post(new ZvMessage(message), handler);
	return true;
}

bool ZvLooper::_CheckPost(const ZvMessage* message, const ZvHandler* handler)
{
	// A looper that is gone: nothing of it may be read.
	if (!zvkit::internal::CheckLooperLive(this, "ZvLooper::PostMessage"))
		return false;
	if (message != nullptr)
		_CheckForwarded(message, handler);
	if (fThread.load(std::memory_order_acquire) != 0 &&
	    static_cast<uint32>(find_thread(nullptr)) == fThread.load(std::memory_order_acquire) &&
	    fQueue->_WouldBlock()) {
		zvkit::internal::CheckReport(
		    "ZvLooper::PostMessage",
		    "the looper's own thread posts while its queue holds %d messages, over the bound of "
		    "%d; the post waits for a removal only this thread can make, and blocks for ever",
		    fQueue->CountItems(), fQueueCapacity);
	}
	return true;
}

status_t ZvLooper::SetQueuePolicy(zv_queue_policy policy)
{
	return fQueue->SetPolicy(policy);
}

int32 ZvLooper::CountBlockedPosters() const
{
	return fQueue->CountBlockedAdders();
}

void ZvLooper::_CheckForwarded(const ZvMessage* message, const ZvHandler* handler) const
{
	void* recorded = nullptr;
	if (!message->FindPointer(kPreferredHandlerField, &recorded))
		return;
	if (recorded == nullptr) {
		zvkit::internal::CheckReport(
		    "ZvLooper::PostMessage",
		    "message already carries a null \"_preferredhandler\" from an earlier post; the "
		    "loop reads that first value and delivers to the preferred handler%s",
		    handler != nullptr ? ", not to the handler given" : "");
	} else if (handler != nullptr && handler != recorded) {
		zvkit::internal::CheckReport(
		    "ZvLooper::PostMessage",
		    "message already carries \"_preferredhandler\" %p from an earlier post; the new "
		    "target %p is added as a second value and the loop reads the first, so the message "
		    "goes to %p or is dropped",
		    recorded, static_cast<const void*>(handler), recorded);
	} else if (handler == nullptr) {
		zvkit::internal::CheckReport(
		    "ZvLooper::PostMessage",
		    "message posted without a handler still carries \"_preferredhandler\" %p from an "
		    "earlier post; it goes to that handler (or is dropped), not to the preferred handler",
		    recorded);
	}
}

status_t ZvLooper::TryPostMessage(uint32 what, const ZvHandler* handler)
{
	return _PostOwned(new ZvMessage(what), handler, 0);
}

status_t ZvLooper::TryPostMessage(const ZvMessage* message, const ZvHandler* handler)
{
	if (message == nullptr)
		return B_BAD_VALUE;
	return _PostOwned(new ZvMessage(message), handler, 0);
}

bool ZvLooper::AddHandler(ZvHandler* handler)
{
	const LockHolder<ZvLooper> lock(*this);
	if (!lock.IsLocked())
		return false;
	if (handler == nullptr || _IsAttached(handler))
		return false;
	handler->SetLooper(this);
	std::lock_guard<std::mutex> hold(fHandlersGuard);
	fHandlers.AddItem(handler);
	if (fHandlerSet != nullptr) {
		fHandlerSet->handlers.insert(handler);
	} else if (fHandlers.CountItems() >= kHandlerSetThreshold) {
		fHandlerSet = new HandlerSet;
		for (int32 i = 0; i < fHandlers.CountItems(); i++)
			fHandlerSet->handlers.insert(fHandlers.ItemAt(i));
	}
	return true;
}

bool ZvLooper::RemoveHandler(ZvHandler* handler)
{
	const LockHolder<ZvLooper> lock(*this);
	if (!lock.IsLocked())
		return false;
	// Writers hold the looper's lock, so the index stays valid until the
	// removal below.
	const int32 index = handler != nullptr && _IsAttached(handler) ? _IndexOf(handler) : -1;
	if (index < 0)
		return false;
	handler->SetLooper(nullptr);
	std::lock_guard<std::mutex> hold(fHandlersGuard);
	fHandlers.RemoveItem(index);
	if (fHandlerSet != nullptr)
		fHandlerSet->handlers.erase(handler);
	return true;
}

ZvHandler* ZvLooper::HandlerAt(int32 index) const
{
	std::lock_guard<std::mutex> hold(fHandlersGuard);
	return fHandlers.ItemAt(index);
}

int32 ZvLooper::CountHandlers() const
{
	std::lock_guard<std::mutex> hold(fHandlersGuard);
	return fHandlers.CountItems();
}

int32 ZvLooper::IndexOfHandler(ZvHandler* handler) const
{
	std::lock_guard<std::mutex> hold(fHandlersGuard);
	return _IndexOf(handler);
}

void ZvLooper::SetPreferredHandler(ZvHandler* handler)
{
	const LockHolder<ZvLooper> lock(*this);
	if (lock.IsLocked())
		fPreferredHandler = handler;
}

ZvHandler* ZvLooper::PreferredHandler()
{
	const LockHolder<ZvLooper> lock(*this);
	return lock.IsLocked() ? fPreferredHandler : nullptr;
}

ZvMessage* ZvLooper::CurrentMessage() const
{
	return fCurrentMessage.load(std::memory_order_acquire);
}

void ZvLooper::DispatchMessage(ZvMessage* message, ZvHandler* target)
{
	if (message == nullptr || target == nullptr)
		return;

	if (message->what == kQuitRequested && target == static_cast<ZvHandler*>(this)) {
		if (!QuitRequested())
			return;
		// The loop thread already holds the lock; this recursive lock is
		// never released, because _EndLoop kills the lock itself.
		if (!Lock())
			return;
		// Serialised with a Quit from another thread (see the top).
		const std::lock_guard<std::mutex> hold(fControl->EndGuard());
		_EndLoop();
		return;
	}

	target->MessageReceived(message);
}

bool ZvLooper::ProcessNextMessage()
{
	ZvMessage* message = fQueue->_TakeNext();
	fCurrentMessage.store(message, std::memory_order_release);
	if (message == nullptr)
		return false;

	void* recorded = nullptr;
	ZvHandler* target = nullptr;
	if (message->FindPointer(kPreferredHandlerField, &recorded))
		target = static_cast<ZvHandler*>(recorded);
	if (target == nullptr)
		target = fPreferredHandler;
	if (target == nullptr)
		target = this;

	// The handler list is searched before the target's link is read: a
	// handler that was removed and then deleted is not in the list, so its
	// stale address is only compared, never dereferenced. The list changes
	// only under the looper's lock, which this thread holds: no guard needed.
	if (_IsAttached(target) && target->Looper() == this) {
		DispatchMessage(message, target);
	} else if (zvkit::internal::ChecksOn()) {
		zvkit::internal::CheckReport(
		    "ZvLooper::ProcessNextMessage",
		    "message 0x%08x for handler %p dropped: that handler is not attached to looper "
		    "\"%s\"; it is deleted without being delivered",
		    static_cast<unsigned>(message->what), static_cast<const void*>(target),
		    Name() != nullptr ? Name() : "");
	}

	// Cleared so that CurrentMessage never hands out a deleted message.
	fCurrentMessage.store(nullptr, std::memory_order_release);
	delete message;
	return true;
}

int32 ZvLooper::Looper()
{
	// Units taken ahead of their messages (see _TakeAhead).
	int32 ahead = 0;
	for (;;) {
		const uint32 access = fLooperAccess.load(std::memory_order_acquire);
		if (ahead > 0) {
			// A unit taken ahead stands for a message already posted, as one
			// taken now would; but a loop ended meanwhile (the semaphore is
			// gone) stops here, as its next wait would fail.
			if (access == kNoSemaphore)
				return 0;
			ahead--;
		} else {
			// One unit per posted message; a failed wait means the semaphore
			// was deleted by Quit or by a "QUIT" message: the loop ends. The
			// very long time-out expiring counts as a wake-up.
			if (!_AwaitMessage(access))
				return 0;
			ahead = _TakeAhead(access);
		}
		// The lock fails once it was killed; the message then stays queued
		// and is deleted with the queue.
		if (Lock()) {
			ProcessNextMessage();
			Unlock();
		}
	}
}

int32 ZvLooper::LooperCaller(ZvLooper* looper)
{
	if (looper == nullptr)
		return 0;
	looper->Looper();
	looper->_Retire();
	// Out of the table (Quit no longer finds it) and marked dead once a Quit
	// in flight has finished with it; only then is it deleted.
	looper->_Unregister();
	delete looper;
	return 0;
}

bool ZvLooper::_AwaitMessage(uint32 access)
{
	// Polling takes a unit exactly as the wait does, or finds the semaphore
	// gone; only "none yet" keeps polling. A unit that is already there is
	// taken at once; that says nothing of whether polling pays (where the
	// loop and its sender take turns on one processor, the answer is often
	// there before the loop looks), so only a message that arrives while the
	// loop polls counts as polling paying.
	const WaitResult first = AcquireSemaphore(access, 0);
	if (first != WaitResult::kTimedOut)
		return first != WaitResult::kFailed;
	// Polling is on once the run of short waits has been counted down.
	if (fPollSkips <= 0) {
		WaitResult polled = WaitResult::kTimedOut;
		if (PollFor(kPollBudget, -1, [&] {
			    polled = AcquireSemaphore(access, 0);
			    return polled != WaitResult::kTimedOut;
		    })) {
			fPollFailures = 0;
			return polled != WaitResult::kFailed;
		}
		fPollFailures = MIN(fPollFailures + 1, kMaxPollFailures);
		fPollSkips = 1 << fPollFailures;
	}

	// Under the opt-in policy, posters still blocked on the bound are let
	// through before the loop sleeps; it may be the last chance.
	fQueue->_ReleaseUncovered();
	if (zvkit::internal::ChecksOn() && !fStallReported && fQueue->_AddersStranded()) {
		const int32 early = _CheckStall(access);
		if (early != 2)
			return early;
	}
	const bigtime_t start = system_time();
	const WaitResult result = AcquireSemaphore(access, -1);
	// A short wait is one that polling might have spared; after enough of
	// them in a row polling is tried again. A long wait (an idle looper)
	// starts the run over.
	if (system_time() - start <= kShortWait)
		fPollSkips--;
	else
		fPollSkips = 1 << fPollFailures;
	return result != WaitResult::kFailed;
}

int32 ZvLooper::_CheckStall(uint32 access)
{
	// The loop is about to sleep with posters blocked on "_item_limit" and
	// no unit to let any through. A poster that was just let through may
	// not have said so yet: wait a little first, and report only if
	// nothing changed.
	const int32 result = ZvSemaphore::Acquire(access, kStallGraceMs);
	if (result != 2 || !fQueue->_AddersStranded() || fQueue->CountItems() >= fQueueCapacity)
		return result;
	fStallReported = true;
	zvkit::internal::CheckReport(
	    "ZvLooper::Looper",
	    "looper \"%s\" goes to sleep with %d posters blocked on \"_item_limit\" and %d "
	    "messages queued, below the bound of %d; no later removal releases them (the bound is "
	    "soft), so they wait until other posts bring the queue back to the bound, perhaps for "
	    "ever (SetQueuePolicy(ZV_QUEUE_RELEASE_BELOW_BOUND) avoids this)",
	    Name() != nullptr ? Name() : "", fQueue->CountBlockedAdders(), fQueue->CountItems(),
	    fQueueCapacity);
	return 2;
}

int32 ZvLooper::_TakeAhead(uint32 access)
{
	// Every unit of "fLooperAccess" is a message posted, and the loop is the
	// only thread that takes units: the ones there now stay there until it
	// takes them. Taking several at once (one atomic operation on a word the
	// posters keep changing, instead of one per message) is the same as
	// taking them one by one without waiting.
	int32 count = 0;
	if (get_sem_count(static_cast<sem_id>(access), &count) != B_OK || count <= 0)
		return 0;
	count = MIN(count, kMaxTakenAhead);
	if (acquire_sem_etc(static_cast<sem_id>(access), count, B_RELATIVE_TIMEOUT, 0) != B_OK)
		return 0;
	return count;
}

void ZvLooper::_Post(ZvMessage* message, const ZvHandler* handler)
{
	_Enqueue(message, handler, B_INFINITE_TIMEOUT);
	// Released whether or not the message was queued: a unit without a
	// message makes the loop find the queue empty, which it passes over.
	// After Quit this is semaphore 0 and the release fails; a queued message
	// then stays queued and is deleted with the queue.
	ZvSemaphore::Release(fLooperAccess.load(std::memory_order_acquire));
}

status_t ZvLooper::_PostOwned(ZvMessage* message, const ZvHandler* handler, bigtime_t timeout)
{
	const status_t status = _Enqueue(message, handler, timeout);
	// Only a queued message gets its unit: a refused post leaves the loop
	// as it was.
	if (status == B_OK)
		ZvSemaphore::Release(fLooperAccess.load(std::memory_order_acquire));
	return status;
}

status_t ZvLooper::_Enqueue(ZvMessage* message, const ZvHandler* handler, bigtime_t timeout)
{
	if (handler != nullptr)
		message->AddPointer(kPreferredHandlerField, handler);
	// Posting takes only the queue's lock, never the looper's, so a handler
	// may post to its own looper from MessageReceived.
	const status_t status = fQueue->_AddMessageEtc(message, timeout);
	if (status != B_OK)
		delete message;
	return status;
}

void ZvLooper::_Retire()
{
	if (fControl == nullptr)
		return;
	fControl->MarkEnding();
	// A poster inside may be waiting for room in a queue that nobody empties
	// any more: one unit of "_item_limit" per poster lets each through (its
	// message is deleted with the queue). Posters that did not wait leave
	// their unit unused, which no longer matters. Plain posts blocked on the
	// bound at the same time (a caller's error) may take units meant for
	// the refs, hence the repeat.
	while (fControl->Posters() > 0) {
		fQueue->_ReleaseAdders(fControl->Posters());
		if (fControl->WaitForPosters(kRetireWait))
			break;
	}
}

bool ZvLooper::_IsAttached(const ZvHandler* handler) const
{
	if (fHandlerSet != nullptr)
		return fHandlerSet->handlers.count(handler) != 0;
	return _IndexOf(handler) >= 0;
}

int32 ZvLooper::_IndexOf(const ZvHandler* handler) const
{
	const int32 count = fHandlers.CountItems();
	for (int32 index = 0; index < count; index++) {
		if (fHandlers.ItemAt(index) == handler)
			return index;
	}
	return -1;
}

void ZvLooper::_EndLoop()
{
	// Refs see the looper gone from here on.
	fControl->MarkEnding();
	// The exchange makes the deletion happen once, whoever ends the loop
	// first; the loop thread then finds no semaphore and its wait fails.
	const uint32 access = fLooperAccess.exchange(kNoSemaphore, std::memory_order_acq_rel);
	if (access != kNoSemaphore)
		ZvSemaphore::Delete(access);
	// A message being processed finishes; its unlock then fails quietly.
	Kill();
	fRunning.store(false, std::memory_order_relaxed);
}

void ZvLooper::_Unregister()
{
	// Out of the table, then marked dead once a Quit in flight has finished
	// with the looper. A second call (the destructor after LooperCaller)
	// finds nothing to take.
	LooperControl* control = Take(this);
	if (control != nullptr) {
		control->MarkDead();
		control->Release();
	}
}
