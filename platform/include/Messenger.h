// Messenger.h: the application kit's message address, BMessenger.
//
// A BMessenger names a target: a handler of a looper, or a looper's
// preferred handler. It holds only identifiers (the looper's and the
// handler's tokens), never a pointer it would dereference, so it stays safe
// to use after its looper has quit: it then simply becomes invalid and
// sending fails with B_BAD_PORT_ID.
//
// SendMessage copies the message into the target looper's queue. The forms
// with a reply BMessage wait for the answer: the target replies with
// BMessage::SendReply; a message deleted without an answer (handled without
// replying, dropped, or its looper gone) answers B_NO_REPLY. Sending to a
// looper from its own thread and waiting for the answer would never finish
// and fails with B_MESSAGE_TO_SELF.
//
// Thread safety: a messenger is a value; any thread may use its own copy.
#ifndef _MESSENGER_H
#define _MESSENGER_H

#include <OS.h>
#include <SupportDefs.h>

class BHandler;
class BLooper;
class BMessage;

class _EXPORT BMessenger
{
public:
	BMessenger();
	// The target is `handler` (which must belong to a looper, and to
	// `looper` when that is given) or, with a nullptr handler, the preferred
	// handler of `looper`. *result: B_OK, B_BAD_VALUE (both nullptr) or
	// B_MISMATCHED_VALUES (handler without, or of another, looper).
	BMessenger(const BHandler* handler, const BLooper* looper = nullptr,
	           status_t* result = nullptr);
	BMessenger(const BMessenger& other);
	~BMessenger();

	BMessenger& operator=(const BMessenger& other);
	bool operator==(const BMessenger& other) const;
	bool operator!=(const BMessenger& other) const;

	// The target's looper still exists.
	bool IsValid() const;
	// The target lives in this process (true for every valid messenger here).
	bool IsTargetLocal() const;
	// The target handler (nullptr for a preferred-handler target or an invalid
	// messenger); *looper receives the looper, or nullptr.
	BHandler* Target(BLooper** looper) const;
	team_id Team() const;

	status_t SendMessage(uint32 command, BHandler* replyTo = nullptr) const;
	status_t SendMessage(BMessage* message, BHandler* replyTo = nullptr,
	                     bigtime_t timeout = B_INFINITE_TIMEOUT) const;
	status_t SendMessage(uint32 command, BMessage* reply) const;
	// Waits up to deliveryTimeout for room in the queue and up to
	// replyTimeout for the answer (B_TIMED_OUT otherwise).
	status_t SendMessage(BMessage* message, BMessage* reply,
	                     bigtime_t deliveryTimeout = B_INFINITE_TIMEOUT,
	                     bigtime_t replyTimeout = B_INFINITE_TIMEOUT) const;

private:
	friend class BMessage;

	int32 fLooperId;
	// Token of the target handler; -1 for the looper's preferred handler.
	int32 fHandlerToken;
};

#endif // _MESSENGER_H
