// TimerService: one thread sleeping until the next deadline of all the
// process's runners.

#include "looper/internal/TimerService.h"

#include "looper/internal/ProcessService.h"
#include "looper/internal/TimerSchedule.h"

#include <ZvMessage.h>

#include <sys/prctl.h>

#include <ctime>

namespace zvkit {
namespace internal {

namespace {

// The longest single sleep: keeps a far deadline within the range of the
// time_t of 32-bit builds. The thread then looks at its set again.
const bigtime_t kLongestSleep = 3600LL * 1000000LL;

} // namespace

TimerEntry::TimerEntry(const ZvLooperRef& target, const ZvMessage* message, bigtime_t start,
                       bigtime_t interval, int32 remaining, bool ownedByService)
    : fTarget(target), fMessage(new ZvMessage(message)), fOwnedByService(ownedByService),
      fService(nullptr), fStart(start), fInterval(interval), fTick(1), fRemaining(remaining),
      fSkipped(0), fScheduled(false), fInFlight(false), fCountTaken(false), fCancelled(false),
      fTargetGone(false)
{
}

TimerEntry::~TimerEntry()
{
	delete fMessage;
}

bigtime_t TimerEntry::_Deadline() const
{
	return TickTime(fStart, fInterval, fTick);
}

TimerService* TimerService::Get()
{
	return ProcessService<TimerService>::Get();
}

TimerService* TimerService::_Create()
{
	TimerService* service = new TimerService;
	if (!StartServiceThread(&_ThreadEntry, service, "zv timer"))
		service->fOrphaned = true;
	return service;
}

TimerService::TimerService() : fInFlight(nullptr), fOrphaned(false)
{
	pthread_condattr_t attributes;
	pthread_condattr_init(&attributes);
	pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
	pthread_cond_init(&fWake, &attributes);
	pthread_condattr_destroy(&attributes);
}

void TimerService::Add(TimerEntry* entry)
{
	std::lock_guard<std::mutex> hold(fLock);
	entry->fService = this;
	_Schedule(entry);
}

void TimerService::Cancel(TimerEntry* entry)
{
	std::unique_lock<std::mutex> hold(fLock);
	entry->fCancelled = true;
	_Unschedule(entry);
	fPosted.wait(hold, [entry] { return !entry->fInFlight; });
}

void TimerService::SetInterval(TimerEntry* entry, bigtime_t interval)
{
	std::lock_guard<std::mutex> hold(fLock);
	// Off the set before its key changes; a post in flight reschedules the
	// entry with the new values when it ends.
	const bool scheduled = entry->fScheduled;
	_Unschedule(entry);
	entry->fStart = system_time();
	entry->fInterval = interval;
	entry->fTick = 1;
	if (scheduled)
		_Schedule(entry);
}

bool TimerService::SetCount(TimerEntry* entry, int32 count)
{
	std::lock_guard<std::mutex> hold(fLock);
	if (entry->fTargetGone)
		return false;
	entry->fRemaining = count < 0 ? -1 : count;
	// A post in flight no longer counts against the new count.
	entry->fCountTaken = false;
	if (count == 0) {
		_Unschedule(entry);
	} else if (!entry->fScheduled && !entry->fInFlight) {
		// Done before: start again at the first tick still ahead.
		entry->fTick = NextTick(entry->fStart, entry->fInterval, entry->fTick - 1, system_time());
		_Schedule(entry);
	}
	return true;
}

void TimerService::GetInfo(const TimerEntry* entry, bigtime_t* interval, int32* count)
{
	std::lock_guard<std::mutex> hold(fLock);
	if (interval != nullptr)
		*interval = entry->fInterval;
	if (count != nullptr)
		*count = entry->fRemaining;
}

int64 TimerService::Skipped(const TimerEntry* entry)
{
	std::lock_guard<std::mutex> hold(fLock);
	return entry->fSkipped;
}

void* TimerService::_ThreadEntry(void* service)
{
	static_cast<TimerService*>(service)->_Run();
	return nullptr;
}

void TimerService::_Run()
{
	// Ask the kernel to end this thread's sleeps on time: by default it
	// may stretch a timed wait by 50 us to batch wake-ups, which would add
	// that much to every post.
	prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);

	std::unique_lock<std::mutex> hold(fLock);
	for (;;) {
		if (fQueue.empty()) {
			pthread_cond_wait(&fWake, fLock.native_handle());
			continue;
		}
		const bigtime_t due = fQueue.begin()->first;
		const bigtime_t now = system_time();
		if (due > now) {
			const bigtime_t until = due - now > kLongestSleep ? now + kLongestSleep : due;
			struct timespec at;
			at.tv_sec = static_cast<time_t>(until / 1000000);
			at.tv_nsec = static_cast<long>(until % 1000000) * 1000;
			pthread_cond_timedwait(&fWake, fLock.native_handle(), &at);
			continue;
		}

		TimerEntry* entry = fQueue.begin()->second;
		fQueue.erase(fQueue.begin());
		entry->fScheduled = false;
		entry->fInFlight = true;
		fInFlight = entry;
		// Counted before the post, so that once the message is queued the
		// count left already says so; given back if the post is skipped.
		entry->fCountTaken = entry->fRemaining > 0;
		if (entry->fCountTaken)
			entry->fRemaining--;
		// A late post is made once; the ticks it missed are dropped.
		entry->fTick = NextTick(entry->fStart, entry->fInterval, entry->fTick, now);

		hold.unlock();
		// Never waits for room: a full queue answers B_WOULD_BLOCK at once.
		const status_t status = entry->fTarget.PostMessage(entry->fMessage, 0);
		hold.lock();

		entry->fInFlight = false;
		fInFlight = nullptr;
		if (status == B_BAD_VALUE) {
			entry->fTargetGone = true;
			entry->fRemaining = 0;
		} else if (status != B_OK) {
			entry->fSkipped++;
			if (entry->fCountTaken)
				entry->fRemaining++;
		}

		if (entry->fCancelled) {
			fPosted.notify_all();
		} else if (entry->fRemaining != 0) {
			_Schedule(entry);
		} else if (entry->fOwnedByService) {
			delete entry;
		}
	}
}

void TimerService::_Schedule(TimerEntry* entry)
{
	const bigtime_t deadline = entry->_Deadline();
	const auto placed = fQueue.emplace(deadline, entry).first;
	entry->fScheduled = true;
	// Only a new first deadline changes how long the thread sleeps.
	if (placed == fQueue.begin() && !fOrphaned)
		pthread_cond_signal(&fWake);
}

void TimerService::_Unschedule(TimerEntry* entry)
{
	if (!entry->fScheduled)
		return;
	fQueue.erase(std::make_pair(entry->_Deadline(), entry));
	entry->fScheduled = false;
}

void TimerService::_ForgetThreadInChild()
{
	// The thread did not come along. A post it had in flight is the
	// parent's; in the child that entry is simply off the schedule.
	for (const auto& item : fQueue)
		item.second->fScheduled = false;
	fQueue.clear();
	if (fInFlight != nullptr)
		fInFlight->fInFlight = false;
	fOrphaned = true;
}

} // namespace internal
} // namespace zvkit
