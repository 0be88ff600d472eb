// FlatFormat.h: byte-level helpers of the flattened message form.
//
// Every integer of the form is 32 bits in host byte order, read and written
// by plain memory copy at any alignment.
#ifndef _ZV_FLAT_FORMAT_H
#define _ZV_FLAT_FORMAT_H

#include <SupportDefs.h>

#include <string.h>

namespace zvkit::internal {

// Header: what, flags, item count.
constexpr size_t kHeaderSize = 12;
// Smallest record: type, empty name with its terminator, size.
constexpr size_t kMinRecordSize = 4 + 1 + 4;
// Name buffer of an item, terminator included.
constexpr size_t kNameBufferSize = 64;

inline uint32 ReadWord(const uint8* at)
{
	uint32 value;
	memcpy(&value, at, sizeof(value));
	return value;
}

inline int32 ReadInt(const uint8* at)
{
	int32 value;
	memcpy(&value, at, sizeof(value));
	return value;
}

inline void WriteWord(uint8* at, uint32 value)
{
	memcpy(at, &value, sizeof(value));
}

inline void WriteInt(uint8* at, int32 value)
{
	memcpy(at, &value, sizeof(value));
}

} // namespace zvkit::internal

#endif // _ZV_FLAT_FORMAT_H
