// Looper.h: the application kit's message loop, BLooper.
//
// A BLooper is a handler that owns a message queue and, once Run is called,
// a thread of its own. The thread takes the posted messages one at a time,
// in the order they were posted, locks the looper, hands each to its target
// handler (DispatchMessage -> MessageReceived), deletes it and unlocks.
//
// Life cycle, as on the platform:
//  - The constructing thread holds the looper's lock until it calls Run.
//    Run starts the thread, releases that lock and returns the thread's id.
//  - Quit ends the thread and deletes the looper. Called from another
//    thread, it waits until the looper's thread has finished (the caller's
//    locks on the looper are released first). Called from the looper's own
//    thread (from a handler), the loop ends after the current message, and
//    the looper is deleted then; the caller must not touch the looper after
//    Quit returns. Before Run, Quit deletes the looper at once.
//  - A B_QUIT_REQUESTED message aimed at the looper itself asks
//    QuitRequested(); when it answers true the looper quits.
//
// Ownership: posting copies the message; the queue owns queued copies and
// the looper deletes each after dispatch. Handlers are never owned.
//
// Thread safety: PostMessage, Lock, Unlock, IsLocked may be called from any
// thread while the looper exists (a BMessenger is the safe way to reach a
// looper that may be gone). AddHandler, RemoveHandler, SetPreferredHandler
// need the looper's lock.
#ifndef _LOOPER_H
#define _LOOPER_H

#include <AppDefs.h>
#include <Handler.h>
#include <Locker.h>
#include <OS.h>

class BMessage;
class BMessenger;

class _EXPORT BLooper : public BHandler
{
public:
	BLooper(const char* name = nullptr, int32 priority = B_NORMAL_PRIORITY,
	        int32 portCapacity = B_LOOPER_PORT_DEFAULT_CAPACITY);
	virtual ~BLooper();

	// Posting: the message is copied. Without a handler argument the looper
	// itself is the target; a nullptr handler means the preferred handler.
	// B_MISMATCHED_VALUES when the handler belongs to another looper,
	// B_WOULD_BLOCK when the queue is full, B_BAD_VALUE for a nullptr message.
	status_t PostMessage(uint32 command);
	status_t PostMessage(BMessage* message);
	status_t PostMessage(uint32 command, BHandler* handler, BHandler* replyTo = nullptr);
	status_t PostMessage(BMessage* message, BHandler* handler, BHandler* replyTo = nullptr);

	// Called in the looper's thread for every message; the default handles
	// B_QUIT_REQUESTED aimed at the looper and gives everything else to
	// handler->MessageReceived.
	virtual void DispatchMessage(BMessage* message, BHandler* handler);
	virtual void MessageReceived(BMessage* message);
	// The message being dispatched, in the looper's thread; nullptr otherwise.
	BMessage* CurrentMessage() const;

	// Handlers (with the looper locked).
	void AddHandler(BHandler* handler);
	bool RemoveHandler(BHandler* handler);
	int32 CountHandlers() const;
	BHandler* HandlerAt(int32 index) const;
	int32 IndexOf(BHandler* handler) const;
	BHandler* PreferredHandler() const;
	void SetPreferredHandler(BHandler* handler);

	// Life cycle.
	virtual thread_id Run();
	virtual void Quit();
	virtual bool QuitRequested();

	// Locking (recursive, per thread).
	bool Lock();
	void Unlock();
	bool IsLocked() const;
	status_t LockWithTimeout(bigtime_t timeout);
	thread_id LockingThread() const;
	int32 CountLocks() const;

	thread_id Thread() const;
	team_id Team() const;
	// The looper whose thread is `thread`, or nullptr.
	static BLooper* LooperForThread(thread_id thread);

private:
	friend class BMessenger;
	friend class BPrivate::LooperAccess;

	struct Private;

	static status_t _ThreadEntry(void* data);
	void _Loop();
	status_t _Post(BMessage* message, BHandler* handler, BHandler* replyTo);

	BLocker fLock;
	Private* fPrivate;
	int32 fId;
	int32 fPriority;
	thread_id fThread;
	bool fRunCalled;
	bool fTerminating;
	BHandler* fPreferred;
	BMessage* fCurrentMessage;
};

#endif // _LOOPER_H
