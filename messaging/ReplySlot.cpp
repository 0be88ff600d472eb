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
// thread runs, longer than a looper that is ready takes to answer. Polling
// pays only while the answering looper runs on another processor at the
// same time, so a sender polls for at most kPollBudget microseconds, and
// after a poll that missed it skips polling for its next requests, twice
// as many after each further miss (up to 2^kMaxPollMisses); a hit starts
// over. Kept per thread: each sender learns from its own requests.
const bigtime_t kPollBudget = 20;
const int32 kMaxPollMisses = 8;
const int kPollsPerClockRead = 16;

thread_local int32 tPollMisses = 0;
thread_local int32 tPollSkips = 0;

} // namespace

ReplySlot::ReplySlot() : fRefs(2), fState(kWaiting), fSettled(false), fAnswer(nullptr) {}

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
			fSettled.store(true, std::memory_order_release);
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

bool ReplySlot::_PollForAnswer(bigtime_t deadline) const
{
	if (tPollSkips > 0) {
		tPollSkips--;
		return false;
	}
	bigtime_t until = system_time() + kPollBudget;
	if (deadline >= 0 && deadline < until)
		until = deadline;
	do {
		for (int poll = 0; poll < kPollsPerClockRead; poll++) {
			if (fSettled.load(std::memory_order_acquire)) {
				tPollMisses = 0;
				return true;
			}
			CpuRelax();
		}
	} while (system_time() < until);
	if (tPollMisses < kMaxPollMisses)
		tPollMisses++;
	tPollSkips = 1 << tPollMisses;
	return false;
}

status_t ReplySlot::Wait(bigtime_t deadline, ZvMessage* reply, bool* answered)
{
	// Whatever the poll finds, the state is read again under the lock.
	_PollForAnswer(deadline);
	std::unique_lock<std::mutex> hold(fLock);
	const auto done = [this] { return fState != kWaiting; };
	if (deadline < 0) {
		fAnswered.wait(hold, done);
	} else {
		const bigtime_t left = deadline - system_time();
		if (!fAnswered.wait_for(hold, std::chrono::microseconds(left > 0 ? left : 0), done)) {
			fState = kAbandoned;
			return B_TIMED_OUT;
		}
	}

	*answered = fAnswer != nullptr;
	if (fAnswer != nullptr)
		*reply = *fAnswer;
	return B_OK;
}

} // namespace zvkit::internal
