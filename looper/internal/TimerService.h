// TimerService.h: the process's timer thread, which makes the posts of
// every ZvMessageRunner.
//
// Entries wait in one set ordered by deadline. The thread sleeps on a
// condition variable bound to the monotonic clock until the first deadline
// (or until an earlier one is added), takes the entry out, works out its
// next tick, and posts with the lock released and a time-out of 0, so that
// no looper can hold it up. An entry being posted is marked in flight;
// Cancel waits for that post to end, which is how a runner's destructor
// guarantees that nothing is posted after it returned.
//
// The service is made on the first use and never destroyed: its thread is
// detached and simply stops with the process. In a child made by fork(),
// the parent's service is left without a thread (its entries stay, inert,
// so that the runners copied into the child can still be deleted) and the
// next runner made there starts a new service.
//
// Thread safety: every member may be called from any thread.
#ifndef ZVKIT_TIMER_SERVICE_H
#define ZVKIT_TIMER_SERVICE_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvLooperRef.h>

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

class ZvMessage;

namespace zvkit {
namespace internal {

class TimerService;
template <typename Service> class ProcessService;

// One runner's schedule and state; every field after the constants is
// guarded by its service's lock.
class TimerEntry
{
public:
	// message is copied; remaining: posts to make (-1: without end).
	TimerEntry(const ZvLooperRef& target, const ZvMessage* message, bigtime_t start,
	           bigtime_t interval, int32 remaining, bool ownedByService);
	~TimerEntry();

	TimerEntry(const TimerEntry&) = delete;
	TimerEntry& operator=(const TimerEntry&) = delete;

	// The service the entry was added to.
	TimerService* Service() const { return fService; }

private:
	friend class TimerService;

	bigtime_t _Deadline() const;

	const ZvLooperRef fTarget;
	ZvMessage* const fMessage;
	// Deleted by the service when done (one-shot posts).
	const bool fOwnedByService;
	TimerService* fService;

	// The next post is due at fStart + fTick * fInterval.
	bigtime_t fStart;
	bigtime_t fInterval;
	int64 fTick;
	int32 fRemaining;
	int64 fSkipped;
	bool fScheduled;
	bool fInFlight;
	// The post in flight took one from fRemaining.
	bool fCountTaken;
	bool fCancelled;
	bool fTargetGone;
};

class TimerService
{
public:
	// The service of this process, made (with its thread) on the first
	// call.
	static TimerService* Get();

	// Schedules entry's next tick; the entry now belongs to this service.
	void Add(TimerEntry* entry);
	// Takes entry off the schedule and waits for a post of it under way;
	// no post of it is made afterwards. The caller deletes it.
	void Cancel(TimerEntry* entry);

	// A new interval, counted from now.
	void SetInterval(TimerEntry* entry, bigtime_t interval);
	// Posts still to make; false when the target is gone.
	bool SetCount(TimerEntry* entry, int32 count);
	void GetInfo(const TimerEntry* entry, bigtime_t* interval, int32* count);
	int64 Skipped(const TimerEntry* entry);

private:
	TimerService();
	~TimerService() = delete;

	static void* _ThreadEntry(void* service);
	void _Run();
	void _Schedule(TimerEntry* entry);
	void _Unschedule(TimerEntry* entry);

	friend class ProcessService<TimerService>;

	// A new service with its thread started (orphaned when that failed).
	static TimerService* _Create();
	// In a forked child, with fLock held: leaves this service inert.
	void _ForgetThreadInChild();

	std::mutex fLock;
	// Wakes the thread for an earlier deadline; waits on the monotonic
	// clock.
	pthread_cond_t fWake;
	// Wakes Cancel when a post in flight ended.
	std::condition_variable fPosted;
	std::set<std::pair<bigtime_t, TimerEntry*>> fQueue;
	// The entry being posted, if any.
	TimerEntry* fInFlight;
	// Set in a forked child: no thread serves this service any more.
	bool fOrphaned;
};

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_TIMER_SERVICE_H
