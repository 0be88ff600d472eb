// ReplySlot.h: where the answer to a request waits for its sender.
//
// ZvLooperRef::SendMessage makes one slot per request and links the posted
// copy of the message to it. Two parties hold references: the sender, until
// it stops waiting, and the request, until it is answered or deleted. The
// answer is a copy of the reply (SendReply) or "no reply" (the request was
// deleted unanswered); the first answer wins. A sender that times out
// abandons the slot: a late answer then finds no one waiting and is
// dropped, and the slot lives on until the request releases it, so the two
// never race on freed memory.
//
// Thread safety: every member may be called from any thread.
#ifndef ZVKIT_REPLY_SLOT_H
#define ZVKIT_REPLY_SLOT_H

#include <SupportDefs.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

class ZvMessage;

namespace zvkit {
namespace internal {

class ReplySlot
{
public:
	// A slot with two references: the sender's and the request's.
	ReplySlot();

	ReplySlot(const ReplySlot&) = delete;
	ReplySlot& operator=(const ReplySlot&) = delete;

	void Release();

	// The request's side. Answers with a copy of reply, or with "no reply"
	// when reply is null: B_OK when the sender was waiting, B_TIMED_OUT when
	// it had stopped waiting, B_DUPLICATE_REPLY when the request was already
	// answered.
	status_t Answer(const ZvMessage* reply);
	bool IsSenderWaiting() const;

	// The sender's side: waits until the answer or until the deadline (a
	// steady_clock time in microseconds; -1: no deadline). B_OK with the
	// answer in reply (what B_NO_REPLY and no fields for "no reply"), or
	// B_TIMED_OUT, after which the slot is abandoned.
	status_t Wait(int64 deadline, ZvMessage* reply);

private:
	~ReplySlot();

	enum State
	{
		kWaiting,
		kAnswered,
		kAbandoned
	};

	std::atomic<int32> fRefs;
	mutable std::mutex fLock;
	std::condition_variable fAnswered;
	State fState;
	// The reply's copy; null with kAnswered means "no reply".
	ZvMessage* fAnswer;
};

// Now on the clock that Wait's deadlines use, in microseconds.
int64 SteadyNow();

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_REPLY_SLOT_H
