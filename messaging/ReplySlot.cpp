// ReplySlot: the meeting point of a request's sender and its answer.

#include "messaging/ReplySlot.h"

#include <ZvMessage.h>

#include <OS.h>

#include "base/internal/Spin.h"

#include <chrono>

namespace zvkit::internal {

namespace {

// A sender polls for its answer before it sleeps: a sleep and its wake-up
// cost two system calls and often tens of microseconds before the woken
// thread runs, longer than a looper that is ready takes to answer. It polls
// for at most kPollBudget microseconds, and backs off where polling does not
// pay (see PollBackoff). Kept per thread: each sender learns from its own
// requests.
const bigtime_t kPollBudget = 20;

thread_local PollBackoff tSenderPoll;

} // namespace

ReplySlot::ReplySlot() : fRefs(2), fState(kWaiting), fSleeping(false), fAnswer(nullptr) {}

ReplySlot::~ReplySlot()
{
	delete fAnswer;
}

void ReplySlot::Release()
{
	if (fRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
		delete this;
}

// The first answer and the sender's time-out race for the slot with one
// compare-and-swap on fState each, from kWaiting: whoever wins decides what
// both sides are told (B_OK to both, or B_TIMED_OUT to both). An answer
// that wins publishes its copy with a release store; a sender that polls
// sees it without a lock. Only a sender that sleeps needs fLock: it says so
// in fSleeping before it looks at fState a last time, and an answer looks
// at fSleeping after it publishes (both sequentially consistent), so at
// least one of the two sees the other.
status_t ReplySlot::Answer(const ZvMessage* reply)
{
	// The copy is made before the claim: the sender never waits for it.
	ZvMessage* answer = reply != nullptr ? new ZvMessage(reply) : nullptr;
	int32 state = kWaiting;
	if (fState.compare_exchange_strong(state, kClaimed, std::memory_order_acq_rel)) {
		fAnswer = answer;
		fState.store(kAnswered, std::memory_order_seq_cst);
		if (fSleeping.load(std::memory_order_seq_cst)) {
			std::lock_guard<std::mutex> hold(fLock);
			fAnswered.notify_one();
		}
		return B_OK;
	}
	delete answer;
	// Later answers are duplicates, even after a time-out.
	if (state == kAbandoned &&
	    fState.compare_exchange_strong(state, kAnswered, std::memory_order_acq_rel))
		return B_TIMED_OUT;
	return B_DUPLICATE_REPLY;
}

bool ReplySlot::IsSenderWaiting() const
{
	return fState.load(std::memory_order_acquire) == kWaiting;
}

bool ReplySlot::_PollForAnswer(bigtime_t deadline) const
{
	if (!tSenderPoll.ShouldPoll())
		return false;
	if (PollFor(kPollBudget, deadline, [this] { return _IsPublished(); })) {
		tSenderPoll.Hit();
		return true;
	}
	tSenderPoll.Miss();
	return false;
}

bool ReplySlot::_SleepForAnswer(bigtime_t deadline)
{
	std::unique_lock<std::mutex> hold(fLock);
	fSleeping.store(true, std::memory_order_seq_cst);
	const auto published = [this] { return _IsPublished(); };
	if (deadline < 0) {
		fAnswered.wait(hold, published);
		return true;
	}
	const bigtime_t left = deadline - system_time();
	return fAnswered.wait_for(hold, std::chrono::microseconds(left > 0 ? left : 0), published);
}

status_t ReplySlot::Wait(bigtime_t deadline, ZvMessage* reply, bool* answered)
{
	if (!_PollForAnswer(deadline) && !_SleepForAnswer(deadline)) {
		int32 state = kWaiting;
		if (fState.compare_exchange_strong(state, kAbandoned, std::memory_order_acq_rel))
			return B_TIMED_OUT;
		// An answer claimed the slot first: it is being published, a matter
		// of a few instructions, and the sender takes it.
		_SleepForAnswer(-1);
	}
	*answered = fAnswer != nullptr;
	if (fAnswer != nullptr)
		*reply = *fAnswer;
	return B_OK;
}

} // namespace zvkit::internal
