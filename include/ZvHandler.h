// ZvHandler.h: the target of looper messages.
//
// A ZvHandler has a name and a link to the ZvLooper whose handler list holds
// it. The looper calls the virtual MessageReceived, in the looper's own
// thread and with the looper locked, for every message meant for the
// handler. Subclass it and override MessageReceived to act on messages.
//
// Ownership: the handler owns its copy of the name. It does not own its
// looper, and a looper never owns its handlers: whoever creates a handler
// deletes it, after removing it from its looper (the destructor does not
// detach it).
//
// Refs: a ZvLooperRef made from a handler names it in its current
// attachment; it turns invalid once the handler is removed, attached to
// another looper, or deleted.
//
// Thread safety: Looper() may be read from any thread at any time (the link
// is atomic; a handler moving between loopers is seen at either). Name and
// SetName are not synchronised: change a handler's name only while no other
// thread uses it.
#ifndef _ZV_HANDLER_H
#define _ZV_HANDLER_H

#include <SupportDefs.h>

#include <ZvExport.h>

#include <atomic>

class ZvLooper;
class ZvMessage;

namespace zvkit::internal {
class HandlerControl;
} // namespace zvkit::internal

class ZV_EXPORT ZvHandler
{
public:
	// Copies name (null gives a nameless handler); no looper yet.
	explicit ZvHandler(const char* name);
	// Frees the name copy. Does not remove the handler from its looper.
	virtual ~ZvHandler();

	ZvHandler(const ZvHandler&) = delete;
	ZvHandler& operator=(const ZvHandler&) = delete;

	// Called by the looper for each message meant for this handler. The
	// message stays the looper's: it is deleted after this returns. Does
	// nothing by default.
	virtual void MessageReceived(ZvMessage* message);

	// Replaces the name by a copy of name; null clears it.
	void SetName(const char* name);
	// The stored name, or null for a nameless handler.
	const char* Name() const;

	// Stores the link to the owning looper; called by ZvLooper::AddHandler
	// and ZvLooper::RemoveHandler only.
	void SetLooper(const ZvLooper* looper);
	// The looper whose handler list holds this handler, or null.
	ZvLooper* Looper() const;

private:
	// ZvLooperRef reads the handler's attachment record.
	friend class ZvLooperRef;

	char* fName;
	std::atomic<ZvLooper*> fLooper;
	// The handler's attachment record, shared with the refs made from it
	// (see ZvLooperRef.h); the handler holds one reference.
	zvkit::internal::HandlerControl* fControl;
};

#endif // _ZV_HANDLER_H
