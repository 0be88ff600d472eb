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
// Ending: Quit from another thread, or a message whose what is
// ZV_QUIT_REQUESTED ("QUIT") aimed at the looper itself, when QuitRequested
// accepts it. When its loop ends, the looper's thread deletes the looper,
// with the messages still queued.
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
// Quit may be called from any other thread while the looper exists: from
// the moment it deleted "fLooperAccess" the looper's thread may end and
// delete the looper, and Quit never touches the object after that point
// (see ZvLooper.cpp). A looper that ended through a "QUIT" message is gone:
// calling Quit on it, or posting to it, uses a deleted object and is the
// caller's error (Quit then finds no live looper at that address and
// returns false, but a new looper may have been built there).
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
#include <ZvThread.h>

#include <atomic>
#include <mutex>

namespace zvkit::internal {
class HandlerSet;
}

class ZvMessage;
class ZvMessageQueue;
struct zv_looper_life;

// what of the quit request: the four bytes Q, U, I, T.
const uint32 ZV_QUIT_REQUESTED = 0x51554954;

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
	// Ends the loop after the message in hand and waits for the looper's
	// thread, which deletes the looper. Returns whether the wait succeeded.
	// Call it from another thread, never from the looper's own.
	bool Quit();
	// Asked before a "QUIT" message ends the loop; always true.
	bool QuitRequested();

	// Posts a new message with this what (or a copy of message), aimed at
	// handler when it is not null. Always returns true; a null message posts
	// nothing. May block while the queue is over its bound.
	bool PostMessage(uint32 what, const ZvHandler* handler);
	bool PostMessage(const ZvMessage* message, const ZvHandler* handler);

	// Attaches handler (not owned). False when handler is null, already
	// attached here, or the looper's lock is gone.
	bool AddHandler(ZvHandler* handler);
	// Detaches handler; false when it is not attached here. The preferred
	// handler is left as it is.
	bool RemoveHandler(ZvHandler* handler);
	// The index-th attached handler, or null out of range.
	ZvHandler* HandlerAt(int32 index) const;
	int32 CountHandlers() const;
	// Index of handler in the handler list, or -1.
	int32 IndexOfHandler(ZvHandler* handler) const;

	// Target of messages posted without a handler; null means the looper.
	void SetPreferredHandler(ZvHandler* handler);
	// Null also when the looper's lock could not be taken.
	ZvHandler* PreferredHandler();

	// The message being dispatched; null outside a dispatch.
	ZvMessage* CurrentMessage() const;

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
	// Waits for one unit of access for the loop: false only when the
	// semaphore is gone (the very long time-out expiring counts as a unit).
	bool _AwaitMessage(uint32 access);
	// Takes, without waiting, up to 32 of the units already there; returns
	// how many.
	int32 _TakeAhead(uint32 access);
	void _Post(ZvMessage* message, const ZvHandler* handler);
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
	// This looper's entry in the process-wide table of live loopers, which
	// lets Quit tell whether the looper still exists (see Quit).
	zv_looper_life* fRecord;

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
};

#endif // _ZV_LOOPER_H
