// ZvMessageRunner: a handle on one entry of the process's timer thread.

#include <ZvMessageRunner.h>

#include <ZvMessage.h>

#include "looper/internal/TimerService.h"

#include <algorithm>

using zvkit::internal::TimerEntry;
using zvkit::internal::TimerService;

namespace {

// How often a one-shot post that found the queue full is offered again, at
// the most.
const bigtime_t kShortestRetry = 1000;

} // namespace

ZvMessageRunner::ZvMessageRunner(const ZvLooperRef& target, const ZvMessage* message,
                                 bigtime_t interval, int32 count)
    : fEntry(nullptr), fInitStatus(B_BAD_VALUE)
{
	if (message == nullptr || interval <= 0 || count == 0 || !target.IsValid())
		return;
	fEntry =
	    new TimerEntry(target, message, system_time(), interval, count < 0 ? -1 : count, false);
	TimerService::Get()->Add(fEntry);
	fInitStatus = B_OK;
}

ZvMessageRunner::~ZvMessageRunner()
{
	if (fEntry == nullptr)
		return;
	fEntry->Service()->Cancel(fEntry);
	delete fEntry;
}

status_t ZvMessageRunner::InitCheck() const
{
	return fInitStatus;
}

status_t ZvMessageRunner::SetInterval(bigtime_t interval)
{
	if (fEntry == nullptr)
		return B_NO_INIT;
	if (interval <= 0)
		return B_BAD_VALUE;
	fEntry->Service()->SetInterval(fEntry, interval);
	return B_OK;
}

status_t ZvMessageRunner::SetCount(int32 count)
{
	if (fEntry == nullptr)
		return B_NO_INIT;
	return fEntry->Service()->SetCount(fEntry, count) ? B_OK : B_BAD_VALUE;
}

status_t ZvMessageRunner::GetInfo(bigtime_t* interval, int32* count) const
{
	if (fEntry == nullptr)
		return B_NO_INIT;
	fEntry->Service()->GetInfo(fEntry, interval, count);
	return B_OK;
}

int64 ZvMessageRunner::Skipped() const
{
	if (fEntry == nullptr)
		return 0;
	return fEntry->Service()->Skipped(fEntry);
}

status_t ZvMessageRunner::StartSending(const ZvLooperRef& target, const ZvMessage* message,
                                       bigtime_t delay)
{
	if (message == nullptr || !target.IsValid())
		return B_BAD_VALUE;
	delay = std::max<bigtime_t>(delay, 0);
	// The first tick falls at now + delay; further ticks, used only to
	// offer a post again that found the queue full, every retry after it.
	const bigtime_t retry = std::max(delay, kShortestRetry);
	TimerEntry* entry =
	    new TimerEntry(target, message, system_time() + delay - retry, retry, 1, true);
	TimerService::Get()->Add(entry);
	return B_OK;
}
