// ItemValue.h: where an item keeps its value, shared by the item's own
// members and the reading of flat records, so that both inline it.
//
// A value of up to ZvMessageItem::kInlineDataSize bytes lives in the name
// buffer when the name leaves room: from its middle (name[32]) when the name
// ends before it, else from the first 8-byte boundary past the terminator.
// Every short name thus puts its value at the same place, and a value that
// grows within the room stays where it is. Anything else is an array on the
// heap.
#ifndef _ZV_MESSAGING_ITEM_VALUE_H
#define _ZV_MESSAGING_ITEM_VALUE_H

#include <ZvMessage.h>

#include "FlatFormat.h"

#include <stdint.h>
#include <string.h>

namespace zvkit::internal {

constexpr size_t kInlineValueStart = kNameBufferSize / 2;
constexpr size_t kInlineValueAlignment = 8;

// The value's offset in the name buffer for a name of nameLength characters.
inline size_t InlineValueOffset(size_t nameLength)
{
	const size_t afterName =
	    (nameLength + 1 + kInlineValueAlignment - 1) & ~(kInlineValueAlignment - 1);
	return afterName > kInlineValueStart ? afterName : kInlineValueStart;
}

// Copies n bytes, n at most 64, without a call: a name or a value kept
// inside an item is short, and reading records copies one of each per item.
// Two copies of a fixed size, from the front and from the back, cover every
// length between that size and twice it.
inline void CopyShort(void* to, const void* from, size_t n)
{
	uint8* out = static_cast<uint8*>(to);
	const uint8* in = static_cast<const uint8*>(from);
	if (n >= 16) {
		if (n > 32) {
			memcpy(out, in, 32);
			memcpy(out + n - 32, in + n - 32, 32);
		} else {
			memcpy(out, in, 16);
			memcpy(out + n - 16, in + n - 16, 16);
		}
	} else if (n >= 8) {
		memcpy(out, in, 8);
		memcpy(out + n - 8, in + n - 8, 8);
	} else if (n >= 4) {
		memcpy(out, in, 4);
		memcpy(out + n - 4, in + n - 4, 4);
	} else if (n > 0) {
		out[0] = in[0];
		out[n / 2] = in[n / 2];
		out[n - 1] = in[n - 1];
	}
}

} // namespace zvkit::internal

inline uint8* ZvMessageItem::_InsideSpot(int32 length, size_t nameLength)
{
	const size_t at = zvkit::internal::InlineValueOffset(nameLength);
	// The place lies inside the buffer even for an empty value, so that data
	// inside the buffer always means "not from the heap".
	if (length <= kInlineDataSize && at < sizeof(name) &&
	    at + static_cast<size_t>(length) <= sizeof(name)) {
		return reinterpret_cast<uint8*>(name) + at;
	}
	return nullptr;
}

inline bool ZvMessageItem::_ValueInside() const
{
	// One comparison: a pointer below the buffer wraps around to a large
	// distance, as null does.
	const uintptr_t distance =
	    reinterpret_cast<uintptr_t>(data) - reinterpret_cast<uintptr_t>(name);
	return distance < sizeof(name);
}

inline uint8* ZvMessageItem::_NewBlock(int32 length, size_t nameLength)
{
	uint8* inside = _InsideSpot(length, nameLength);
	return inside != nullptr ? inside : new uint8[length];
}

inline void ZvMessageItem::_FreeBlock()
{
	if (!_ValueInside())
		delete[] data;
	data = nullptr;
}

inline void ZvMessageItem::_AdoptRecord(const void* recordName, size_t nameSize,
                                        const uint8* source, int32 length)
{
	// The value's place inside the item follows the name, so the new name
	// goes in before the value does. A heap block of the same size is
	// refilled when the value stays on the heap; otherwise a new block is
	// made (an empty one too, so that a record always leaves a block behind).
	uint8* inside = _InsideSpot(length, nameSize - 1);
	if (inside != nullptr) {
		if (!_ValueInside())
			delete[] data;
		data = inside;
	} else if (data == nullptr || size != length || _ValueInside()) {
		_FreeBlock();
		data = new uint8[length];
	}
	zvkit::internal::CopyShort(name, recordName, nameSize);
	size = length;
	if (inside != nullptr)
		zvkit::internal::CopyShort(data, source, static_cast<size_t>(length));
	else
		memcpy(data, source, length);
}

#endif // _ZV_MESSAGING_ITEM_VALUE_H
