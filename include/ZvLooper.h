// ZvLooper.h: a message loop running in a thread of its own.
//
// Other threads post messages to a looper (PostMessage copies them); the
// looper's thread takes them out of its ZvMessageQueue one at a time, picks
// the handler each is meant for and calls that handler's MessageReceived
// with the looper locked. A looper is itself a handler (handler 0 and, at the
// start, its own preferred handler) and a recursive lock (ZvLocker).
//
// Target of a message: the handler recorded in its pointer field
// "_preferredhandler" by PostMessage, else the preferred handler, else the
// looper itself. A target that is not attached to this looper drops the
// message (it is deleted without delivery).
//
// Ending: Quit (from another thread, or from a handler running in the
// looper's own thread), or a message whose what is ZV_QUIT_REQUESTED ("QUIT")
// aimed at the looper itself, when QuitRequested accepts it. When its loop
// ends, the looper's thread deletes the looper, with the messages still
// queued (they are not dispatched).
//
// Ownership: the looper owns its queue and the queued messages; it never
// owns its handlers. Once Run has been called, only the looper's own thread
// deletes it; a looper that was never run is deleted by its creator.
//
// Thread safety: PostMessage may be called from any thread, the looper's own
// included (posting takes only the queue's lock). AddHandler, RemoveHandler,
// SetPreferredHandler and PreferredHandler take the looper's lock, so from
// another thread they wait for the message in hand to be dispatched.
// HandlerAt, CountHandlers, IndexOfHandler and CurrentMessage take no
// looper lock. Lock order: the looper's lock, then the queue's lock.
//
// Quit may be called from any thread while the looper exists: from the
// moment it deleted "fLooperAccess" the looper's thread may end and delete
// the looper, and Quit never touches the object after that point (see
// ZvLooper.cpp). A looper that ended through a "QUIT" message is gone:
// calling Quit on it, or posting to it, uses a deleted object and is the
// caller's error (Quit then finds no live looper at that address and
// returns false, but a new looper may have been built there).
//
// Refs: a ZvLooperRef names a looper safely whatever happens to it; the
// looper refuses refs from the moment it begins to end (Quit, an accepted
// "QUIT") and, before it is deleted, waits for the posts through refs that
// are under way.
//
// Note: ZvLooper::Looper() is the message loop; it hides the inherited
// ZvHandler::Looper() const. Reach the handler link of a looper through a
// ZvHandler pointer or reference.
#ifndef _ZV_LOOPER_H
#define _ZV_LOOPER_H

#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvHandler.h>
#include <ZvList.h>
#include <ZvLocker.h>
#include <ZvMessageQueue.h>
#include <ZvThread.h>

#include <atomic>
#include <mutex>

namespace zvkit::internal {
class HandlerSet;
}

class ZvMessage;
class ZvMessageQueue;

namespace zvkit::internal {
class LooperControl;
} // namespace zvkit::internal

// what of the quit request: the four bytes Q, U, I, T.
const uint32 ZV_QUIT_REQUESTED = 0x51554954;

// A message loop in a thread of its own; see the file's description.
class ZV_EXPORT ZvLooper : public ZvHandler, public ZvLocker
{
public:
	// queueCapacity is the soft bound of the looper's queue. No thread runs
	// until Run.
	ZvLooper(const char* name, zv_thread_priority priority, int32 queueCapacity);
	// Deletes the queue and the messages in it; leaves the handlers alone.
	virtual ~ZvLooper();

	// Starts the looper's thread ("ZvThread", the looper's priority). Returns
	// whether the thread could be resumed.
	bool Run();
	// Ends the loop after the message in hand. From another thread it waits
	// for the looper's thread, which deletes the looper, and returns whether
	// the wait succeeded. From the looper's own thread (a handler's
	// MessageReceived) it returns false at once, without waiting for
	// itself: the messages still queued are not dispatched, and the looper
	// is deleted once that handler returns. False too when no live looper
	// is at this address.
	bool Quit();
	// Asked before a "QUIT" message ends the loop; always true.
	bool QuitRequested();

	// Posts a new message with this what (or a copy of message), aimed at
	// handler when it is not null. Always returns true; a null message posts
	// nothing. May block while the queue is over its bound.
	bool PostMessage(uint32 what, const ZvHandler* handler);
	bool PostMessage(const ZvMessage* message, const ZvHandler* handler);
	// As PostMessage, but never waits for room: B_WOULD_BLOCK (nothing
	// posted) where PostMessage would wait on the queue's bound, B_OK when
	// the message was queued, B_BAD_VALUE for a null message.
	status_t TryPostMessage(uint32 what, const ZvHandler* handler);
	status_t TryPostMessage(const ZvMessage* message, const ZvHandler* handler);

	// Attaches handler (not owned). False when handler is null, already
	// attached here, or the looper's lock is gone.
	bool AddHandler(ZvHandler* handler);
	// Detaches handler; false when it is not attached here. The preferred
	// handler is left as it is.
	bool RemoveHandler(ZvHandler* handler);
	// The index-th attached handler, or null out of range.
	ZvHandler* HandlerAt(int32 index) const;
	// The number of attached handlers.
	int32 CountHandlers() const;
	// Index of handler in the handler list, or -1.
	int32 IndexOfHandler(ZvHandler* handler) const;

	// Target of messages posted without a handler; null means the looper.
	void SetPreferredHandler(ZvHandler* handler);
	// Null also when the looper's lock could not be taken.
	ZvHandler* PreferredHandler();

	// The message being dispatched; null outside a dispatch.
	ZvMessage* CurrentMessage() const;

	// How the queue releases posters blocked on its bound (see
	// ZvMessageQueue.h); ZV_QUEUE_SOFT_BOUND by default. With
	// ZV_QUEUE_RELEASE_BELOW_BOUND a bounded looper never strands its
	// posters. B_BAD_VALUE for an unknown policy.
	status_t SetQueuePolicy(zv_queue_policy policy);
	// Posters blocked on the queue's bound right now (a snapshot, for
	// diagnostics: posters that stay blocked while the looper is idle are
	// stranded).
	int32 CountBlockedPosters() const;

	// Delivers message to target: a "QUIT" message aimed at the looper ends
	// the loop when QuitRequested agrees; anything else goes to
	// target->MessageReceived.
	virtual void DispatchMessage(ZvMessage* message, ZvHandler* target);

	// Takes the oldest message, picks its target and dispatches it, then
	// deletes it. Call with the looper locked. False when the queue was
	// empty.
	bool ProcessNextMessage();
	// The message loop, run by the looper's thread; returns 0 when the loop
	// ends.
	int32 Looper();
	// The thread's entry: runs looper's loop, then deletes looper.
	static int32 LooperCaller(ZvLooper* looper);

private:
	// Handlers record the looper's control block when attached; refs post
	// through _PostOwned.
	friend class ZvHandler;
	friend class ZvLooperRef;

	zvkit::internal::LooperControl* _Control() const { return fControl; }
	// Queues message (now the looper's) aimed at handler, waiting at most
	// timeout for room (see ZvMessageQueue::_AddMessageEtc): B_OK when
	// queued; otherwise the message is deleted and the queue's result
	// returned.
	status_t _PostOwned(ZvMessage* message, const ZvHandler* handler, bigtime_t timeout);
	// Refuses refs from now on and waits for the posters inside to leave;
	// called before the looper is deleted. Idempotent.
	void _Retire();

	// Waits for one unit of access for the loop: false only when the
	// semaphore is gone (the very long time-out expiring counts as a unit).
	bool _AwaitMessage(uint32 access);
	// Takes, without waiting, up to 32 of the units already there; returns
	// how many.
	int32 _TakeAhead(uint32 access);
	// Queues message (now the looper's) and releases a unit of access for
	// it, whether or not it was queued: the post of PostMessage.
	void _Post(ZvMessage* message, const ZvHandler* handler);
	// Adds "_preferredhandler" for handler and queues message, waiting at
	// most timeout for room; on failure deletes it. The queue's result.
	status_t _Enqueue(ZvMessage* message, const ZvHandler* handler, bigtime_t timeout);
	// Checked mode, before a post: false (reported) when this looper is
	// gone; reports a forwarded message and a post from the looper's own
	// thread that will block for ever.
	bool _CheckPost(const ZvMessage* message, const ZvHandler* handler);
	// Checked mode: reports a message that already carries
	// "_preferredhandler" from an earlier post.
	void _CheckForwarded(const ZvMessage* message, const ZvHandler* handler) const;
	// Checked mode: the loop is about to sleep with posters stranded on the
	// bound; waits briefly and reports (once) if they still are. Returns as
	// _AwaitMessage, 2 when nothing came.
	int32 _CheckStall(uint32 access);
	int32 _IndexOf(const ZvHandler* handler) const;
	// Whether handler is attached; a set lookup once there are many.
	bool _IsAttached(const ZvHandler* handler) const;
	void _EndLoop();
	void _Unregister();

	int32 fQueueCapacity;
	std::atomic<bool> fRunning;
	zv_thread_priority fPriority;
	ZvHandler* fPreferredHandler;
	ZvList<ZvHandler*> fHandlers;
	std::atomic<uint32> fThread;
	// Guards fHandlers for the readers that take no looper lock (HandlerAt,
	// CountHandlers, IndexOfHandler); writers hold the looper's lock first.
	mutable std::mutex fHandlersGuard;
	// The attached handlers as a set, made once the list grows long, so that
	// a dispatch does not walk the list; changed with it, under both locks.
	zvkit::internal::HandlerSet* fHandlerSet;
	// Shared with the refs and handlers that name this looper (see
	// ZvLooperRef.h) and with the process-wide table of live loopers, which
	// lets Quit tell whether the looper still exists (see Quit); the looper
	// holds one reference.
	zvkit::internal::LooperControl* fControl;

	// What every post reads, on a cache line of its own: the loop writes
	// its lock and the current message once per message, and a poster that
	// shared their line would have to fetch it back for every post.
	alignas(64) ZvMessageQueue* fQueue;
	std::atomic<uint32> fLooperAccess;

	// Written by the loop's thread for every message.
	alignas(64) std::atomic<ZvMessage*> fCurrentMessage;
	// How many polls in a row have failed, and how many short waits remain
	// before the loop polls for the next message again (it polls while this
	// is 0 or less; see _AwaitMessage). Used by the loop's thread only.
	int32 fPollFailures;
	int32 fPollSkips;
	// The checked mode reported posters stranded on the bound (once per
	// looper). Used by the loop's thread only.
	bool fStallReported;
};

#endif // _ZV_LOOPER_H
