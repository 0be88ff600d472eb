// ZvMessageRunner.h: messages posted to a looper at regular intervals.
//
// A runner posts a copy of its message through a ZvLooperRef `interval`
// microseconds after it was made, then every `interval`, `count` times (a
// negative count: until the runner is deleted). StartSending posts one copy
// after a delay with no object to keep.
//
// Schedule: the n-th post is due at start + n * interval on the monotonic
// clock (system_time()), so posts do not drift, however late each one was.
// A post that comes late is made once; the ticks it missed are not made up
// for, and the next post is due at the first tick still ahead.
//
// Targets that cannot take a message:
//  - a target that is gone (its looper ended, its handler removed or
//    deleted) stops the runner: GetInfo then gives a count of 0;
//  - a target whose queue is over its bound is never waited for: the post
//    is skipped and counted (Skipped()), and the message is offered again at
//    the next tick. A skipped post does not use up the count, so a runner
//    with a count delivers exactly that many messages, each at one of its
//    ticks, unless its target goes away first.
//
// All runners of a process share one timer thread, made on the first use.
// It sleeps until the next deadline and posts without waiting, so a slow or
// full looper delays no other runner. The thread is never joined: it takes
// no part in the process's exit. A child made by fork() starts with no
// runners; the parent's are not carried over, and the first runner made in
// the child starts a timer thread of its own.
//
// Ownership: the runner keeps its own copy of the message given (the caller
// keeps the original). Each post queues a further copy, which the looper
// owns and deletes.
//
// Deleting the runner cancels it: once the destructor has returned no
// further post is made (a post under way when it was called is finished
// first). A message posted before then may still be in the looper's queue.
//
// Thread safety: every member may be called from any thread, a handler of
// the target looper included. One runner must not be deleted while another
// thread still calls it.
#ifndef _ZV_MESSAGE_RUNNER_H
#define _ZV_MESSAGE_RUNNER_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvLooperRef.h>

class ZvMessage;

namespace zvkit {
namespace internal {
class TimerEntry;
} // namespace internal
} // namespace zvkit

// Posts copies of a message to a looper ref on a schedule; see the file's
// description.
class ZV_EXPORT ZvMessageRunner
{
public:
	// Starts posting copies of message to target: the first after interval
	// microseconds, then every interval, count times (negative: without
	// end). See InitCheck for the arguments refused.
	ZvMessageRunner(const ZvLooperRef& target, const ZvMessage* message, bigtime_t interval,
	                int32 count = -1);
	// Cancels the runner; no post is made after it returned.
	~ZvMessageRunner();

	ZvMessageRunner(const ZvMessageRunner&) = delete;
	ZvMessageRunner& operator=(const ZvMessageRunner&) = delete;

	// B_OK for a running runner; B_BAD_VALUE when message was null, interval
	// was not positive, count was 0, or target was already invalid (such a
	// runner never posts).
	status_t InitCheck() const;

	// Restarts the schedule from now with a new interval: the next post is
	// due interval microseconds from now. The count left is kept. B_OK;
	// B_BAD_VALUE for an interval that is not positive; B_NO_INIT when
	// InitCheck failed.
	status_t SetInterval(bigtime_t interval);
	// Sets how many posts are still to be made (negative: without end; 0
	// stops the runner). A runner that had made all its posts starts again
	// with its next tick. B_OK; B_BAD_VALUE once the target is gone;
	// B_NO_INIT when InitCheck failed.
	status_t SetCount(int32 count);
	// The interval, and the posts still to be made (-1: without end; 0 once
	// the runner is done or its target is gone). Either pointer may be null.
	// B_OK, or B_NO_INIT when InitCheck failed.
	status_t GetInfo(bigtime_t* interval, int32* count) const;

	// Posts skipped so far because the target's queue was over its bound.
	int64 Skipped() const;

	// Posts one copy of message to target after delay microseconds (0 or
	// less: at once, from the timer thread), with no runner to keep. A post
	// that finds the queue over its bound is offered again every delay, or
	// every millisecond for a shorter delay, until it is queued or the
	// target is gone.
	// B_OK when scheduled; B_BAD_VALUE for a null message or an invalid
	// target.
	static status_t StartSending(const ZvLooperRef& target, const ZvMessage* message,
	                             bigtime_t delay);

private:
	zvkit::internal::TimerEntry* fEntry;
	status_t fInitStatus;
};

#endif // _ZV_MESSAGE_RUNNER_H
