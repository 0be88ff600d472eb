// WatchService: one epoll thread for all the process's descriptor watches.

#include "looper/internal/WatchService.h"

#include "looper/internal/ProcessService.h"

#include <ZvDescriptorWatch.h>
#include <ZvMessage.h>

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace zvkit {
namespace internal {

namespace {

const char* const kDescriptorField = "_descriptor";
const char* const kEventsField = "_events";

// How long the thread waits before offering again the posts that found a
// queue full.
const int kRetryMilliseconds = 1;

uint32 EventsOf(uint32 epollEvents)
{
	uint32 events = 0;
	if ((epollEvents & EPOLLIN) != 0)
		events |= ZV_DESCRIPTOR_READABLE;
	if ((epollEvents & EPOLLOUT) != 0)
		events |= ZV_DESCRIPTOR_WRITABLE;
	if ((epollEvents & (EPOLLHUP | EPOLLRDHUP)) != 0)
		events |= ZV_DESCRIPTOR_HUNG_UP;
	if ((epollEvents & EPOLLERR) != 0)
		events |= ZV_DESCRIPTOR_ERROR;
	return events;
}

status_t StatusOf(int error)
{
	switch (error) {
	case EBADF:
	case EINVAL:
		return B_BAD_VALUE;
	case EPERM:
		return B_NOT_ALLOWED;
	case EEXIST:
		return B_BUSY;
	case ENOMEM:
	case ENOSPC:
		return B_NO_MEMORY;
	default:
		return B_ERROR;
	}
}

} // namespace

WatchEntry::WatchEntry(int descriptor, uint32 events, bool continuous, const ZvLooperRef& target,
                       const ZvMessage* message)
    : fDescriptor(descriptor), fEvents(events), fContinuous(continuous), fTarget(target),
      fMessage(message != nullptr ? new ZvMessage(message) : new ZvMessage(ZV_DESCRIPTOR_READY)),
      fService(nullptr), fId(0), fPending(0), fInFlight(false), fRemoved(false), fStopped(false)
{
}

WatchEntry::~WatchEntry()
{
	delete fMessage;
}

WatchService* WatchService::Get()
{
	return ProcessService<WatchService>::Get();
}

WatchService* WatchService::_Create()
{
	WatchService* service = new WatchService;
	if (service->fEpoll < 0 || !StartServiceThread(&_ThreadEntry, service, "zv epoll"))
		service->fOrphaned = true;
	return service;
}

WatchService::WatchService()
    : fEpoll(epoll_create1(EPOLL_CLOEXEC)), fNextId(1), fInFlight(nullptr), fOrphaned(false)
{
}

uint32 WatchService::_EpollEvents(const WatchEntry* entry) const
{
	uint32 events = EPOLLRDHUP;
	if ((entry->fEvents & ZV_DESCRIPTOR_READABLE) != 0)
		events |= EPOLLIN;
	if ((entry->fEvents & ZV_DESCRIPTOR_WRITABLE) != 0)
		events |= EPOLLOUT;
	events |= entry->fContinuous ? EPOLLET : EPOLLONESHOT;
	return events;
}

status_t WatchService::Add(WatchEntry* entry)
{
	std::lock_guard<std::mutex> hold(fLock);
	if (fOrphaned)
		return B_NO_MEMORY;
	if (fDescriptors.count(entry->fDescriptor) != 0)
		return B_BUSY;
	entry->fService = this;
	entry->fId = fNextId++;
	struct epoll_event event = {};
	event.events = _EpollEvents(entry);
	event.data.u64 = entry->fId;
	if (epoll_ctl(fEpoll, EPOLL_CTL_ADD, entry->fDescriptor, &event) != 0)
		return StatusOf(errno);
	fEntries.emplace(entry->fId, entry);
	fDescriptors.emplace(entry->fDescriptor, entry);
	return B_OK;
}

void WatchService::Remove(WatchEntry* entry)
{
	std::unique_lock<std::mutex> hold(fLock);
	if (!entry->fRemoved) {
		entry->fRemoved = true;
		fEntries.erase(entry->fId);
		fDescriptors.erase(entry->fDescriptor);
		fRetries.erase(std::remove(fRetries.begin(), fRetries.end(), entry), fRetries.end());
		// Fails harmlessly when the descriptor was closed, or stopped
		// already.
		if (!fOrphaned && !entry->fStopped)
			epoll_ctl(fEpoll, EPOLL_CTL_DEL, entry->fDescriptor, nullptr);
	}
	fPosted.wait(hold, [entry] { return !entry->fInFlight; });
}

status_t WatchService::Rearm(WatchEntry* entry)
{
	std::lock_guard<std::mutex> hold(fLock);
	if (entry->fStopped || entry->fRemoved)
		return B_BAD_VALUE;
	// A continuous watch never disarms.
	if (entry->fContinuous || fOrphaned)
		return B_OK;
	struct epoll_event event = {};
	event.events = _EpollEvents(entry);
	event.data.u64 = entry->fId;
	if (epoll_ctl(fEpoll, EPOLL_CTL_MOD, entry->fDescriptor, &event) != 0)
		return StatusOf(errno);
	return B_OK;
}

bool WatchService::IsActive(const WatchEntry* entry)
{
	std::lock_guard<std::mutex> hold(fLock);
	return !entry->fStopped && !entry->fRemoved;
}

void* WatchService::_ThreadEntry(void* service)
{
	static_cast<WatchService*>(service)->_Run();
	return nullptr;
}

void WatchService::_Run()
{
	const int kBatch = 64;
	struct epoll_event events[kBatch];
	std::unique_lock<std::mutex> hold(fLock);
	for (;;) {
		const int timeout = fRetries.empty() ? -1 : kRetryMilliseconds;
		const int epoll = fEpoll;
		hold.unlock();
		const int count = epoll_wait(epoll, events, kBatch, timeout);
		hold.lock();

		for (int i = 0; i < count; i++) {
			const auto found = fEntries.find(events[i].data.u64);
			// Removed meanwhile: the event is dropped.
			if (found == fEntries.end())
				continue;
			WatchEntry* entry = found->second;
			const uint32 seen = EventsOf(events[i].events);
			if (entry->fPending != 0) {
				// Already waiting for room: the new events join them.
				entry->fPending |= seen;
				continue;
			}
			_Deliver(hold, entry, seen);
		}

		if (!fRetries.empty()) {
			// By number: a watch may be removed, and deleted, while an
			// earlier one is posted.
			std::vector<uint64> retries;
			for (const WatchEntry* entry : fRetries)
				retries.push_back(entry->fId);
			fRetries.clear();
			for (const uint64 id : retries) {
				const auto found = fEntries.find(id);
				if (found == fEntries.end())
					continue;
				WatchEntry* entry = found->second;
				const uint32 pending = entry->fPending;
				entry->fPending = 0;
				_Deliver(hold, entry, pending);
			}
		}
	}
}

void WatchService::_Deliver(std::unique_lock<std::mutex>& hold, WatchEntry* entry, uint32 events)
{
	entry->fInFlight = true;
	fInFlight = entry;
	hold.unlock();

	ZvMessage message(entry->fMessage);
	message.AddInt32(kDescriptorField, entry->fDescriptor);
	message.AddInt32(kEventsField, static_cast<int32>(events));
	// Never waits for room: a full queue answers B_WOULD_BLOCK at once.
	const status_t status = entry->fTarget.PostMessage(&message, 0);

	hold.lock();
	entry->fInFlight = false;
	fInFlight = nullptr;
	if (entry->fRemoved) {
		fPosted.notify_all();
		return;
	}
	if (status == B_BAD_VALUE) {
		// The target is gone: the watch stops for good.
		entry->fStopped = true;
		epoll_ctl(fEpoll, EPOLL_CTL_DEL, entry->fDescriptor, nullptr);
	} else if (status != B_OK) {
		entry->fPending |= events;
		fRetries.push_back(entry);
	}
}

void WatchService::_ForgetThreadInChild()
{
	// The thread did not come along, and the epoll instance is the
	// parent's: the child's copy is closed and never used again.
	if (fInFlight != nullptr)
		fInFlight->fInFlight = false;
	fRetries.clear();
	if (fEpoll >= 0)
		close(fEpoll);
	fEpoll = -1;
	fOrphaned = true;
}

} // namespace internal
} // namespace zvkit
