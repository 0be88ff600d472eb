// Handler.h: the application kit's message target, BHandler.
//
// A handler receives the messages a looper delivers to it, in the looper's
// thread and with the looper locked, through the virtual MessageReceived.
// A handler belongs to at most one looper at a time (BLooper::AddHandler);
// the looper does not own it. Every handler has a process-unique token by
// which messengers address it, so a messenger never dereferences a handler
// that has left its looper.
//
// Thread safety: Looper() and Name() may be read from any thread while the
// handler is not being attached, detached or renamed; attach and detach under
// the looper's lock. Delete a handler only after it has left its looper, or
// let its destructor detach it (the looper must then still exist).
#ifndef _HANDLER_H
#define _HANDLER_H

#include <SupportDefs.h>

class BLooper;
class BMessage;

namespace BPrivate {
class LooperAccess;
}

class _EXPORT BHandler
{
public:
	BHandler(const char* name = nullptr);
	virtual ~BHandler();

	BHandler(const BHandler&) = delete;
	BHandler& operator=(const BHandler&) = delete;

	// Called in the looper's thread, with the looper locked, for every
	// message delivered to this handler. The default does nothing.
	virtual void MessageReceived(BMessage* message);

	BLooper* Looper() const;

	void SetName(const char* name);
	const char* Name() const;

	// Locks and unlocks this handler's looper; false when there is none.
	bool LockLooper();
	void UnlockLooper();

private:
	friend class BLooper;
	friend class BPrivate::LooperAccess;

	char* fName;
	BLooper* fLooper;
	int32 fToken;
};

#endif // _HANDLER_H
