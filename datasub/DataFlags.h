// DataFlags.h: what the groups of a subscriber's flags word (named in
// ZvDataSubscriber.h) mean to the registry and the subscriber.
#ifndef _ZV_DATA_FLAGS_H
#define _ZV_DATA_FLAGS_H

#include <SupportDefs.h>

#include <ZvDataSubscriber.h>

namespace zvkit::internal {

// Modes 0 and 1 receive updates from the other subscribers.
inline bool ReceivesUpdates(uint32 flags)
{
	return (flags & ZV_DS_MODE_MASK) <= 1;
}

// Modes 0 and 2 can give a newcomer its initial data.
inline bool CanBeSource(uint32 flags)
{
	const uint32 mode = flags & ZV_DS_MODE_MASK;
	return mode == 0 || mode == 2;
}

inline bool NeverRegistered(uint32 flags)
{
	return (flags & ZV_DS_NEVER_REGISTERED_MASK) != 0;
}

// Setters and unarchiving propagate only when neither of these groups is set.
inline bool Propagates(uint32 flags)
{
	return (flags & (ZV_DS_LOCAL_ONLY_MASK | ZV_DS_NEVER_REGISTERED_MASK)) == 0;
}

} // namespace zvkit::internal

#endif // _ZV_DATA_FLAGS_H
