// DataFlags.h: the bit groups of a subscriber's flags word and the kinds of
// data of the touched mask, shared by the registry and the subscriber.
#ifndef _ZV_DATA_FLAGS_H
#define _ZV_DATA_FLAGS_H

#include <SupportDefs.h>

namespace zvkit::internal {

// Flags word.
constexpr uint32 kModeMask = 0x0000000F;
constexpr uint32 kLocalOnlyMask = 0x000000F0;
constexpr uint32 kNeverRegisteredMask = 0x00000F00;
constexpr uint32 kJoinMask = 0x0000F000;
constexpr uint32 kJoinPush = 0x00001000;
constexpr uint32 kServerMask = 0x000F0000;

// Touched mask.
constexpr uint32 kTouchedInteger = 1;
constexpr uint32 kTouchedFloat = 2;
constexpr uint32 kTouchedString = 4;
constexpr uint32 kTouchedRaw = 8;
constexpr uint32 kTouchedMessage = 16;
constexpr uint32 kTouchedAll = 255;

// Modes 0 and 1 receive updates from the other subscribers.
inline bool ReceivesUpdates(uint32 flags)
{
	return (flags & kModeMask) <= 1;
}

// Modes 0 and 2 can give a newcomer its initial data.
inline bool CanBeSource(uint32 flags)
{
	const uint32 mode = flags & kModeMask;
	return mode == 0 || mode == 2;
}

inline bool NeverRegistered(uint32 flags)
{
	return (flags & kNeverRegisteredMask) != 0;
}

// Setters and unarchiving propagate only when neither of these groups is set.
inline bool Propagates(uint32 flags)
{
	return (flags & (kLocalOnlyMask | kNeverRegisteredMask)) == 0;
}

} // namespace zvkit::internal

#endif // _ZV_DATA_FLAGS_H
