// ReplySlot.h: where the answer to a request waits for its sender.
//
// A request (see ZvLooperRef::SendMessage) is a message linked to one slot.
// Two parties hold references: the sender, until it stops waiting, and the
// request, until it is deleted. The answer is a copy of the reply
// (ZvMessage::SendReply) or "no reply" (the request was deleted
// unanswered); the first answer wins. A sender that times out abandons the
// slot: a late answer then finds no one waiting and is dropped, and the
// slot lives on until the request releases it, so the two never race on
// freed memory.
//
// Thread safety: every member may be called from any thread.
#ifndef _ZV_MESSAGING_REPLY_SLOT_H
#define _ZV_MESSAGING_REPLY_SLOT_H

#include <SupportDefs.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

class ZvMessage;

namespace zvkit::internal {

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

	// The sender's side: waits for the answer until deadline (system_time;
	// negative: no deadline). B_OK with *answered telling whether a reply
	// came (then it is assigned to reply) or "no reply"; B_TIMED_OUT, after
	// which the slot is abandoned.
	status_t Wait(bigtime_t deadline, ZvMessage* reply, bool* answered);

private:
	~ReplySlot();
	// Polls briefly for the answer before the sender sleeps (see Wait).
	bool _PollForAnswer(bigtime_t deadline) const;
	// The sender's sleep until the answer is published or deadline passes
	// (negative: none); false on the time-out.
	bool _SleepForAnswer(bigtime_t deadline);
	bool _IsPublished() const { return fState.load(std::memory_order_seq_cst) == kAnswered; }

	// kWaiting: the sender waits. kClaimed: an answer won and is being
	// published (the sender may no longer give up). kAnswered: published,
	// fAnswer final. kAbandoned: the sender gave up; the next answer is
	// told so and moves the slot to kAnswered.
	enum State
	{
		kWaiting,
		kClaimed,
		kAnswered,
		kAbandoned
	};

	std::atomic<int32> fRefs;
	std::atomic<int32> fState;
	// Set by a sender that sleeps, before it looks at fState once more; an
	// answer that then sees it wakes the sender under fLock.
	std::atomic<bool> fSleeping;
	// The reply's copy, written once before kAnswered; null means "no
	// reply".
	ZvMessage* fAnswer;
	// Only for a sender that sleeps.
	std::mutex fLock;
	std::condition_variable fAnswered;
};

} // namespace zvkit::internal

#endif // _ZV_MESSAGING_REPLY_SLOT_H
