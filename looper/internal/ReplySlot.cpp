// ReplySlot: the meeting point of a request's sender and its answer.

#include "looper/internal/ReplySlot.h"

#include <ZvMessage.h>

#include <chrono>

namespace zvkit {
namespace internal {

// The application kit's B_NO_REPLY ('_NRP'). The looper layer sits below
// that kit, so the value is restated here; the looper tests compare the
// two.
constexpr uint32 kNoReplyWhat = 0x5F4E5250;

int64 SteadyNow()
{
	return std::chrono::duration_cast<std::chrono::microseconds>(
	           std::chrono::steady_clock::now().time_since_epoch())
	    .count();
}

ReplySlot::ReplySlot() : fRefs(2), fState(kWaiting), fAnswer(nullptr) {}

ReplySlot::~ReplySlot()
{
	delete fAnswer;
}

void ReplySlot::Release()
{
	if (fRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
		delete this;
}

status_t ReplySlot::Answer(const ZvMessage* reply)
{
	// The copy is made before the lock: the sender never waits for it.
	ZvMessage* answer = reply != nullptr ? new ZvMessage(reply) : nullptr;
	status_t status;
	{
		std::lock_guard<std::mutex> hold(fLock);
		if (fState == kWaiting) {
			fState = kAnswered;
			fAnswer = answer;
			answer = nullptr;
			fAnswered.notify_one();
			status = B_OK;
		} else if (fState == kAbandoned) {
			// Later answers are duplicates, even after a time-out.
			fState = kAnswered;
			status = B_TIMED_OUT;
		} else {
			status = B_DUPLICATE_REPLY;
		}
	}
	delete answer;
	return status;
}

bool ReplySlot::IsSenderWaiting() const
{
	std::lock_guard<std::mutex> hold(fLock);
	return fState == kWaiting;
}

status_t ReplySlot::Wait(int64 deadline, ZvMessage* reply)
{
	std::unique_lock<std::mutex> hold(fLock);
	const auto answered = [this] { return fState != kWaiting; };
	if (deadline < 0) {
		fAnswered.wait(hold, answered);
	} else {
		const std::chrono::steady_clock::time_point until{std::chrono::microseconds(deadline)};
		if (!fAnswered.wait_until(hold, until, answered)) {
			fState = kAbandoned;
			return B_TIMED_OUT;
		}
	}

	if (fAnswer != nullptr) {
		*reply = *fAnswer;
	} else {
		reply->MakeEmpty();
		reply->what = kNoReplyWhat;
	}
	return B_OK;
}

} // namespace internal
} // namespace zvkit
