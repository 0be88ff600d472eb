// ZvDescriptorWatch.h: a message to a looper when a file descriptor is
// ready.
//
// A watch posts a message through a ZvLooperRef when its descriptor becomes
// readable, writable (for the events asked for) or hung up, so a looper can
// read a pipe or a socket without a thread of its own. The message is a
// copy of the one given to the watch (a new message whose what is
// ZV_DESCRIPTOR_READY when none was given) with two int32 fields added:
//
//  - "_descriptor": the descriptor watched;
//  - "_events": the events seen, a mask of ZV_DESCRIPTOR_READABLE,
//    ZV_DESCRIPTOR_WRITABLE, ZV_DESCRIPTOR_HUNG_UP and ZV_DESCRIPTOR_ERROR.
//    Hang-up and error are reported whether asked for or not.
//
// Arming: by default the watch is level-triggered and disarmed after each
// post, until the handler calls Rearm() (normally once it has read what was
// there). A looper that is slow to get to the message is therefore not
// flooded, and a descriptor that is still readable when re-armed posts again
// at once. With ZV_WATCH_CONTINUOUS the watch stays armed and posts once each
// time the descriptor becomes ready anew (new data arriving, room appearing
// to write): the handler must then read (or write) until the call would
// block, or it may not hear from the descriptor again.
//
// A post never waits for the target: when its queue is over its bound the
// post is offered again about every millisecond until it is queued. A
// target that is gone (its looper ended, its handler removed) stops the
// watch for good (IsActive() false).
//
// All watches of a process share one epoll thread, made on the first use,
// never joined (it takes no part in the process's exit). A child made by
// fork() starts with no watches: the parent's stay silent there (and leave
// the parent's alone), and the first watch made in the child starts a
// thread of its own.
//
// Deleting the watch stops it: once the destructor has returned no further
// post is made (a post under way when it was called is finished first). A
// message posted before then may still be queued for the handler.
//
// Closing the descriptor: delete the watch first, then close the
// descriptor. A descriptor closed while watched stays registered with the
// epoll thread as long as another copy of it is open (a dup(), a forked
// child), and the watch may post for it; a new descriptor that reuses the
// number cannot be watched (B_BUSY) until the old watch is deleted.
// Deleting the watch after the close is still safe.
//
// One descriptor, one watch: a second watch on a descriptor already watched
// fails with B_BUSY; ask for both events in one watch instead.
//
// Thread safety: every member may be called from any thread, a handler of
// the target looper included. One watch must not be deleted while another
// thread still calls it.
#ifndef _ZV_DESCRIPTOR_WATCH_H
#define _ZV_DESCRIPTOR_WATCH_H

#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvLooperRef.h>

class ZvMessage;

namespace zvkit {
namespace internal {
class WatchEntry;
} // namespace internal
} // namespace zvkit

// The events of a watch, and of the "_events" field.
enum
{
	ZV_DESCRIPTOR_READABLE = 0x01,
	ZV_DESCRIPTOR_WRITABLE = 0x02,
	ZV_DESCRIPTOR_HUNG_UP = 0x04,
	ZV_DESCRIPTOR_ERROR = 0x08
};

// Options of a watch.
enum
{
	// Stay armed after each post; post at each new readiness.
	ZV_WATCH_CONTINUOUS = 0x01
};

// what of the message posted when the watch was given none: 'DRDY'.
const uint32 ZV_DESCRIPTOR_READY = 0x44524459;

// Posts a message to a looper ref when a descriptor is ready; see the file's
// description.
class ZV_EXPORT ZvDescriptorWatch
{
public:
	// Watches descriptor (not owned; it stays open) for events, a mask of
	// ZV_DESCRIPTOR_READABLE and ZV_DESCRIPTOR_WRITABLE, and posts a copy of
	// message (null: a new ZV_DESCRIPTOR_READY message) to target. The
	// watch is armed at once. See InitCheck for the failures.
	ZvDescriptorWatch(int descriptor, uint32 events, const ZvLooperRef& target,
	                  const ZvMessage* message = nullptr, uint32 flags = 0);
	// Stops the watch; no post is made after it returned.
	~ZvDescriptorWatch();

	ZvDescriptorWatch(const ZvDescriptorWatch&) = delete;
	ZvDescriptorWatch& operator=(const ZvDescriptorWatch&) = delete;

	// B_OK for a watch in place; B_BAD_VALUE for a negative or closed
	// descriptor, events without READABLE or WRITABLE (or with other bits),
	// or an invalid target; B_NOT_ALLOWED for a descriptor that epoll cannot
	// watch (a regular file); B_BUSY when the descriptor is already
	// watched; B_NO_MEMORY when the system refused the resources.
	status_t InitCheck() const;

	// Arms the watch again after a post (level-triggered: posts at once
	// when the descriptor is still ready). B_OK, also when the watch was
	// armed already or is continuous; B_BAD_VALUE once the watch stopped
	// because its target is gone; B_NO_INIT when InitCheck failed.
	status_t Rearm();

	// The descriptor watched (-1 when InitCheck failed).
	int Descriptor() const;
	// False once the target went away, or when InitCheck failed.
	bool IsActive() const;

private:
	zvkit::internal::WatchEntry* fEntry;
	status_t fInitStatus;
	int fDescriptor;
};

#endif // _ZV_DESCRIPTOR_WATCH_H
