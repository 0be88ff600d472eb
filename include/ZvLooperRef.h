// ZvLooperRef.h: a safe name for a looper, or for one of its handlers.
//
// A ZvLooperRef is a small copyable value made from a ZvLooper, or from a
// ZvHandler attached to a looper, while that object is alive. After that it
// stays safe to use for ever, whatever happens to its target in any thread:
// once the looper has begun to end (Quit, an accepted "QUIT" message, its
// deletion) or the handler was removed, moved to another looper or deleted,
// the ref is invalid and posting through it fails with B_BAD_VALUE; no call
// ever touches the freed object.
//
// Posting through a ref is ZvLooper::PostMessage with a result: a copy of
// the message (or a new one with the what given) is queued, aimed at the
// ref's handler, or at the looper's preferred handler for a looper ref. The
// copy carries the message's fields and, for a handler ref, the
// "_preferredhandler" field naming the handler, exactly as PostMessage
// makes it; a "_preferredhandler" field that the message already had (a
// message received from a looper and passed on) is not copied, so that the
// message goes where the ref says. The wait for room in a queue that is
// over its bound can be limited.
//
// Requests: SendMessage posts a copy linked to the calling thread and waits
// for the answer, which the receiving handler gives with
// ZvMessage::SendReply. A request deleted without an answer (ignored,
// dropped, or still queued when its looper ended) answers at once with a
// reply whose what is ZV_NO_REPLY ("NONE", see ZvMessenger.h).
//
// Ownership: a ref owns nothing but shared references to small records
// that the looper and the handler keep; it never keeps its target alive.
// Messages given to a ref stay the caller's (the ref posts copies).
//
// Thread safety: a ref may be used from any thread; different refs (copies
// included) may be used at once. One ref object must not be assigned while
// another thread uses it, as with any value.
#ifndef _ZV_LOOPER_REF_H
#define _ZV_LOOPER_REF_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvMessenger.h> // ZV_NO_REPLY

class ZvHandler;
class ZvLooper;
class ZvMessage;

namespace zvkit::internal {
class HandlerControl;
class LooperControl;
class ReplySlot;
} // namespace zvkit::internal

// A safe, copyable handle to a looper or one of its handlers; see the file's
// description.
class ZV_EXPORT ZvLooperRef
{
public:
	// Names nothing: invalid.
	ZvLooperRef();
	// Names looper (null: nothing). The looper must be alive now.
	explicit ZvLooperRef(const ZvLooper* looper);
	// Names handler in its current attachment (null, or a handler that is
	// not attached: nothing). The handler must be alive now.
	explicit ZvLooperRef(const ZvHandler* handler);
	// Copies name the same target; a copy stays safe on its own.
	ZvLooperRef(const ZvLooperRef& other);
	// Names other's target instead of this one's.
	ZvLooperRef& operator=(const ZvLooperRef& other);
	// Lets go of the target's record (never of the target itself).
	~ZvLooperRef();

	// False once the target is gone (see above). A true answer may be out
	// of date at once when another thread ends the target.
	bool IsValid() const;

	// Posts a copy of message (or a new message with what): B_OK when it
	// was queued; B_BAD_VALUE when the target is gone or message is null;
	// B_WOULD_BLOCK (timeout 0) or B_TIMED_OUT when the queue stayed over
	// its bound for timeout microseconds (nothing posted).
	status_t PostMessage(const ZvMessage* message, bigtime_t timeout = B_INFINITE_TIMEOUT) const;
	status_t PostMessage(uint32 what, bigtime_t timeout = B_INFINITE_TIMEOUT) const;

	// Posts message itself instead of a copy, for a sender that made it
	// with new only to post it (a bridge that reads messages from outside).
	// The ref takes message whatever the result: the looper owns it once
	// queued, and it is deleted when it was not (same results as
	// PostMessage). message must not be a request or be queued elsewhere.
	status_t PostOwnedMessage(ZvMessage* message, bigtime_t timeout = B_INFINITE_TIMEOUT) const;

	// Posts a copy of message as a request and waits for the answer; timeout
	// bounds the whole call (room in the queue, then the answer):
	//  - B_OK: reply holds the answer, or, when the request was deleted
	//    unanswered, has what ZV_NO_REPLY and no fields;
	//  - B_TIMED_OUT (B_WOULD_BLOCK for a timeout of 0 that found the queue
	//    full): no answer in time; an answer that comes later is dropped;
	//  - B_BAD_VALUE: the target is gone, or message or reply is null;
	//  - B_WOULD_BLOCK at once when called from the target looper's own
	//    thread, which could never answer while it waits.
	// reply is assigned (operator=), so it keeps its own flags.
	status_t SendMessage(const ZvMessage* message, ZvMessage* reply,
	                     bigtime_t timeout = B_INFINITE_TIMEOUT) const;
	status_t SendMessage(uint32 what, ZvMessage* reply,
	                     bigtime_t timeout = B_INFINITE_TIMEOUT) const;

	// Whether both refs name the same looper and the same handler (in the
	// same attachment).
	bool operator==(const ZvLooperRef& other) const;
	// The negation of operator==.
	bool operator!=(const ZvLooperRef& other) const { return !(*this == other); }

private:
	// Posts a copy of message, or a new message with what when message is
	// null. With request not null the copy is a request, and *request gets
	// its reply slot (the sender's reference), or null when no copy was
	// made.
	status_t _Post(const ZvMessage* message, uint32 what, zvkit::internal::ReplySlot** request,
	               bigtime_t timeout) const;

	zvkit::internal::LooperControl* fLooper;
	zvkit::internal::HandlerControl* fHandlerControl;
	const ZvHandler* fHandler;
	uint32 fStamp;
};

#endif // _ZV_LOOPER_REF_H
