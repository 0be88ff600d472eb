// ZvDescriptorWatch: a handle on one entry of the process's epoll thread.

#include <ZvDescriptorWatch.h>

#include <ZvMessage.h>

#include "looper/internal/WatchService.h"

using zvkit::internal::WatchEntry;
using zvkit::internal::WatchService;

ZvDescriptorWatch::ZvDescriptorWatch(int descriptor, uint32 events, const ZvLooperRef& target,
                                     const ZvMessage* message, uint32 flags)
    : fEntry(nullptr), fInitStatus(B_BAD_VALUE), fDescriptor(-1)
{
	const uint32 known = ZV_DESCRIPTOR_READABLE | ZV_DESCRIPTOR_WRITABLE;
	if (descriptor < 0 || (events & known) == 0 || (events & ~known) != 0 ||
	    (flags & ~static_cast<uint32>(ZV_WATCH_CONTINUOUS)) != 0 || !target.IsValid())
		return;
	WatchEntry* entry =
	    new WatchEntry(descriptor, events, (flags & ZV_WATCH_CONTINUOUS) != 0, target, message);
	fInitStatus = WatchService::Get()->Add(entry);
	if (fInitStatus != B_OK) {
		delete entry;
		return;
	}
	fEntry = entry;
	fDescriptor = descriptor;
}

ZvDescriptorWatch::~ZvDescriptorWatch()
{
	if (fEntry == nullptr)
		return;
	fEntry->Service()->Remove(fEntry);
	delete fEntry;
}

status_t ZvDescriptorWatch::InitCheck() const
{
	return fInitStatus;
}

status_t ZvDescriptorWatch::Rearm()
{
	if (fEntry == nullptr)
		return B_NO_INIT;
	return fEntry->Service()->Rearm(fEntry);
}

int ZvDescriptorWatch::Descriptor() const
{
	return fDescriptor;
}

bool ZvDescriptorWatch::IsActive() const
{
	return fEntry != nullptr && fEntry->Service()->IsActive(fEntry);
}
