// ZvMessenger.h: a small value naming a destination in this process.
//
// A messenger holds a handler, a looper, or both. Sending posts to the right
// looper with the handler as the message's preferred target:
//
//  - with a handler: through the handler's own looper, or through the
//    messenger's looper when the handler is detached (nothing when there is
//    no looper either);
//  - then, whenever the messenger has a looper: once more to that looper,
//    aimed at its preferred handler.
//
// So a messenger holding both a handler and a looper delivers each message
// twice; this is the class's defined behaviour. There is no synchronous
// reply: the reply form of SendMessage only sets the reply's what to
// ZV_NO_REPLY ("NONE").
//
// Ownership: neither target is owned; copies share them.
//
// Thread safety: a messenger holds no lock. Sending reads the handler's
// looper link at that moment; the caller keeps the targets alive.
#ifndef _ZV_MESSENGER_H
#define _ZV_MESSENGER_H

#include <SupportDefs.h>

#include <ZvExport.h>

class ZvHandler;
class ZvLooper;
class ZvMessage;

// what of the reply of a synchronous send: the four bytes N, O, N, E.
const uint32 ZV_NO_REPLY = 0x4E4F4E45;

// Names a handler and/or a looper to send to; see the file's description.
class ZV_EXPORT ZvMessenger
{
public:
	// Stores both as given; neither is checked.
	ZvMessenger(ZvHandler* handler, ZvLooper* looper);
	//@{
	// Copies other's handler and looper.
	ZvMessenger(const ZvMessenger& other);
	ZvMessenger& operator=(const ZvMessenger& other);
	//@}

	// Sends a new message with this what, as described for the class.
	void SendMessage(uint32 what);
	// The message is copied by the looper; the caller keeps it.
	void SendMessage(const ZvMessage* message);
	// Sends message, then sets reply->what to ZV_NO_REPLY when reply is not
	// null. Both time-outs are ignored.
	void SendMessage(const ZvMessage* message, ZvMessage* reply, int32 sendTimeout,
	                 int32 replyTimeout);

	// True with a looper, or with a handler that is attached to one.
	bool IsValid() const;
	// Always true: every target is in this process.
	bool IsTargetLocal() const;
	// Returns the handler; stores the looper (or, without one, the handler's
	// looper) through looper when it is not null.
	ZvHandler* Target(ZvLooper** looper);

private:
	ZvLooper* fLooper;
	ZvHandler* fHandler;
};

#endif // _ZV_MESSENGER_H
