// WatchService.h: the process's epoll thread, which makes the posts of
// every ZvDescriptorWatch.
//
// Each watch is registered with one epoll instance under a number of its
// own (never reused), and the thread looks that number up under the
// service's lock, so an event that arrives for a watch just removed finds
// nothing and is dropped. A watch being posted is marked in flight, and
// Remove waits for that post to end: after Remove nothing is posted for
// the watch. Posts never wait for room in a queue; one that finds the
// queue full is kept with its events and offered again at the thread's
// next turn, which then comes after a millisecond at most.
//
// Disarming uses EPOLLONESHOT (the kernel disarms the descriptor when it
// reports it; Rearm arms it again); continuous watches use EPOLLET.
//
// The service is made on the first use and never destroyed (its thread is
// detached). In a child made by fork() the parent's service is left
// without its thread, and without its epoll descriptor, which the child
// shares with the parent and must not change; the next watch made there
// starts a new service.
//
// Thread safety: every member may be called from any thread.
#ifndef ZVKIT_WATCH_SERVICE_H
#define ZVKIT_WATCH_SERVICE_H

#include <SupportDefs.h>

#include <ZvLooperRef.h>

#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <vector>

class ZvMessage;

namespace zvkit {
namespace internal {

class WatchService;
template <typename Service> class ProcessService;

// One watch; the fields after the constants are guarded by its service's
// lock.
class WatchEntry
{
public:
	// message is copied; null makes a ZV_DESCRIPTOR_READY message.
	WatchEntry(int descriptor, uint32 events, bool continuous, const ZvLooperRef& target,
	           const ZvMessage* message);
	~WatchEntry();

	WatchEntry(const WatchEntry&) = delete;
	WatchEntry& operator=(const WatchEntry&) = delete;

	// The service the entry was added to.
	WatchService* Service() const { return fService; }

private:
	friend class WatchService;

	const int fDescriptor;
	// ZV_DESCRIPTOR_READABLE / _WRITABLE asked for.
	const uint32 fEvents;
	const bool fContinuous;
	const ZvLooperRef fTarget;
	ZvMessage* const fMessage;
	WatchService* fService;

	uint64 fId;
	// Events seen but not yet posted (the queue was full).
	uint32 fPending;
	bool fInFlight;
	bool fRemoved;
	bool fStopped;
};

class WatchService
{
public:
	// The service of this process, made (with its thread) on the first
	// call.
	static WatchService* Get();

	// Registers entry, armed; B_OK or the failure (see ZvDescriptorWatch::
	// InitCheck). On success the entry belongs to this service.
	status_t Add(WatchEntry* entry);
	// Unregisters entry and waits for a post of it under way; no post of it
	// is made afterwards. The caller deletes it.
	void Remove(WatchEntry* entry);
	status_t Rearm(WatchEntry* entry);
	bool IsActive(const WatchEntry* entry);

private:
	WatchService();
	~WatchService() = delete;

	static void* _ThreadEntry(void* service);
	void _Run();
	// Posts events for entry with the lock (held by hold) released.
	void _Deliver(std::unique_lock<std::mutex>& hold, WatchEntry* entry, uint32 events);
	uint32 _EpollEvents(const WatchEntry* entry) const;

	friend class ProcessService<WatchService>;

	// A new service with its thread started (orphaned when there is no
	// epoll instance or no thread).
	static WatchService* _Create();
	// In a forked child, with fLock held: leaves this service inert.
	void _ForgetThreadInChild();

	int fEpoll;
	std::mutex fLock;
	std::condition_variable fPosted;
	uint64 fNextId;
	std::unordered_map<uint64, WatchEntry*> fEntries;
	// The watched descriptors: one watch each.
	std::unordered_map<int, WatchEntry*> fDescriptors;
	// Watches with events that found their queue full.
	std::vector<WatchEntry*> fRetries;
	WatchEntry* fInFlight;
	// Set in a forked child: no thread serves this service any more.
	bool fOrphaned;
};

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_WATCH_SERVICE_H
