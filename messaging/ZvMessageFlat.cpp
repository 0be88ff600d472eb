// The flattened form of a message and of its items.
//
// Block: what, flags and the item count (12 bytes), then one record per item:
// type code, name with its terminator, data size, data bytes. Integers are
// 32-bit in host byte order unless a byte order is given. There is no
// padding, no magic and no length.
#include <ZvMessage.h>

#include "FlatFormat.h"
#include "ItemValue.h"
#include "messaging/FlatWalk.h"

#include <limits.h>
#include <string.h>

using namespace zvkit::internal;

int32 ZvMessageItem::GetData(void* buffer) const
{
	uint8* out = static_cast<uint8*>(buffer);
	const size_t nameSize = strlen(name) + 1;
	WriteWord(out, type);
	memcpy(out + 4, name, nameSize);
	WriteInt(out + 4 + nameSize, size);
	if (size >= 1 && data != nullptr)
		memcpy(out + 4 + nameSize + 4, data, size);
	return static_cast<int32>(4 + nameSize + 4) + size;
}

int32 ZvMessageItem::SetData(const void* buffer)
{
	// The record is trusted: the name is read up to its terminator or 64
	// bytes, whichever comes first, and the size word follows the name as
	// kept, so a longer name is misread from there on.
	const uint8* in = static_cast<const uint8*>(buffer);
	char readName[kNameBufferSize];
	strncpy(readName, reinterpret_cast<const char*>(in + 4), sizeof(readName));
	readName[sizeof(readName) - 1] = '\0';
	const size_t nameSize = strlen(readName) + 1;
	int32 readSize = ReadInt(in + 4 + nameSize);
	// A negative size cannot be allocated; read it as an empty value.
	if (readSize < 0)
		readSize = 0;

	_AdoptRecord(readName, nameSize, in + 4 + nameSize + 4, readSize);
	type = ReadWord(in);
	return static_cast<int32>(4 + nameSize + 4) + readSize;
}

int32 ZvMessageItem::SetData(const void* buffer, size_t available)
{
	return _SetRecord(buffer, available, false);
}

int32 ZvMessageItem::_SetRecord(const void* buffer, size_t available, bool swapped)
{
	if (buffer == nullptr || available < kMinRecordSize)
		return 0;

	const uint8* in = static_cast<const uint8*>(buffer);
	// The name must end within the 64-byte name buffer and within the block.
	const size_t nameSpan = MIN(available - 4, kNameBufferSize);
	const void* terminator = memchr(in + 4, 0, nameSpan);
	if (terminator == nullptr)
		return 0;
	const size_t nameSize = static_cast<const uint8*>(terminator) - (in + 4) + 1;

	const size_t sizeAt = 4 + nameSize;
	if (available - sizeAt < 4)
		return 0;
	int32 readSize = ReadInt(in + sizeAt);
	if (swapped)
		readSize = static_cast<int32>(__builtin_bswap32(static_cast<uint32>(readSize)));
	const size_t dataAt = sizeAt + 4;
	if (readSize < 0 || static_cast<size_t>(readSize) > available - dataAt ||
	    readSize > INT32_MAX - static_cast<int32>(dataAt)) {
		return 0;
	}

	uint32 readType = ReadWord(in);
	if (swapped) {
		readType = __builtin_bswap32(readType);
		// A nested message is checked before the item changes, so that a
		// refused record leaves the item as it was.
		if (readType == ZV_MESSAGE_TYPE) {
			zvkit::internal::FlatWalk walk;
			walk.swapped = true;
			walk.nested = true;
			if (!zvkit::internal::CheckFlatBlock(in + dataAt, readSize, walk, nullptr, nullptr))
				return 0;
		}
	}
	_AdoptRecord(in + 4, nameSize, in + dataAt, readSize);
	type = readType;
	if (swapped)
		zvkit::internal::SwapFlatValue(type, data, size, true, nullptr);
	return static_cast<int32>(dataAt) + readSize;
}

int32 ZvMessage::FlattenedSize() const
{
	int32 total = kHeaderSize;
	for (int32 i = 0; i < items.CountItems(); i++)
		total += items.ItemAt(i)->Size();
	return total;
}

bool ZvMessage::Flatten(void* buffer, int32* size) const
{
	if (buffer == nullptr)
		return false;

	uint8* out = static_cast<uint8*>(buffer);
	WriteWord(out, what);
	WriteWord(out + 4, fFlags);
	WriteInt(out + 8, items.CountItems());
	size_t at = kHeaderSize;
	for (int32 i = 0; i < items.CountItems(); i++)
		at += items.ItemAt(i)->GetData(out + at);
	if (size != nullptr)
		*size = static_cast<int32>(at);
	return true;
}

status_t ZvMessage::Flatten(void* buffer, zv_byte_order order, int32* size) const
{
	if (buffer == nullptr || order < ZV_LITTLE_ENDIAN || order > ZV_HOST_ENDIAN)
		return B_BAD_VALUE;
	int32 written = 0;
	Flatten(buffer, &written);
	if (order != ZV_HOST_ENDIAN && order != ZV_HostByteOrder()) {
		zvkit::internal::FlatWalk walk;
		walk.convert = true;
		if (!zvkit::internal::WalkFlatBlock(static_cast<uint8*>(buffer), written, walk, nullptr,
		                                    nullptr)) {
			return B_BAD_DATA;
		}
	}
	if (size != nullptr)
		*size = written;
	return B_OK;
}

status_t ZvMessage::Unflatten(const void* buffer, size_t size, zv_byte_order order)
{
	if (buffer == nullptr || order < ZV_LITTLE_ENDIAN || order > ZV_HOST_ENDIAN)
		return B_BAD_VALUE;
	const bool swapped = order != ZV_HOST_ENDIAN && order != ZV_HostByteOrder();
	return _UnflattenBlock(buffer, size, true, swapped) ? B_OK : B_BAD_DATA;
}

bool ZvMessage::Unflatten(const void* buffer)
{
	return _UnflattenBlock(buffer, 0, false);
}

bool ZvMessage::Unflatten(const void* buffer, size_t size)
{
	return _UnflattenBlock(buffer, size, true);
}

bool ZvMessage::_UnflattenBlock(const void* buffer, size_t size, bool bounded, bool swapped)
{
	if (buffer == nullptr)
		return false;

	const uint8* in = static_cast<const uint8*>(buffer);
	if (bounded && size < kHeaderSize) {
		MakeEmpty();
		return false;
	}
	// A count of 0 or below means no records, in both forms. Every record
	// takes at least kMinRecordSize bytes: a count that cannot fit is
	// refused before anything is allocated.
	int32 count = ReadInt(in + 8);
	if (swapped)
		count = static_cast<int32>(__builtin_bswap32(static_cast<uint32>(count)));
	if (bounded && count > 0 &&
	    static_cast<size_t>(count) > (size - kHeaderSize) / kMinRecordSize) {
		MakeEmpty();
		return false;
	}

	// Items are refilled in place and renamed: the name index is made again
	// when next needed (nothing below looks a name up).
	_DropIndex();
	// The items already in the message are refilled in place (and their data
	// blocks kept when the size matches) instead of being deleted and made
	// again; the result is the same as emptying the message first.
	size_t at = kHeaderSize;
	for (int32 i = 0; i < count; i++) {
		const bool fresh = i >= items.CountItems();
		ZvMessageItem* item = fresh ? new ZvMessageItem() : items.ItemAt(i);
		const int32 consumed =
		    !bounded ? item->SetData(in + at) : item->_SetRecord(in + at, size - at, swapped);
		if (consumed == 0) {
			if (fresh)
				delete item;
			MakeEmpty();
			return false;
		}
		if (fresh)
			items.AddItem(item);
		at += consumed;
	}
	while (items.CountItems() > MAX(count, int32(0)))
		delete items.RemoveItem(items.CountItems() - 1);

	what = ReadWord(in);
	fFlags = ReadWord(in + 4);
	if (swapped) {
		what = __builtin_bswap32(what);
		fFlags = __builtin_bswap32(fFlags);
	}
	return true;
}
