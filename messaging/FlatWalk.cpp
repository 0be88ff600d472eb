// Walking a flattened block: checks with offsets and reasons, byte swapping.
#include "messaging/FlatWalk.h"

#include "messaging/FlatFormat.h"

#include <ZvTypeCodes.h>

#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace zvkit::internal {

namespace {

// A word of the block, in the block's order.
uint32 ReadWordIn(const uint8* at, bool swapped)
{
	const uint32 value = ReadWord(at);
	return swapped ? __builtin_bswap32(value) : value;
}

// Reverses the bytes of one element of type T in place (unaligned).
template <typename T> void SwapInPlace(uint8* at)
{
	T value;
	memcpy(&value, at, sizeof(value));
	if constexpr (sizeof(T) == 2)
		value = __builtin_bswap16(value);
	else if constexpr (sizeof(T) == 4)
		value = __builtin_bswap32(value);
	else
		value = __builtin_bswap64(value);
	memcpy(at, &value, sizeof(value));
}

void SwapWord(uint8* at)
{
	SwapInPlace<uint32>(at);
}

void SwapElements(uint8* data, size_t size, size_t width)
{
	if (width == 0)
		return;
	const size_t count = size / width;
	switch (width) {
	case 2:
		for (size_t i = 0; i < count; i++)
			SwapInPlace<uint16>(data + i * 2);
		break;
	case 4:
		for (size_t i = 0; i < count; i++)
			SwapInPlace<uint32>(data + i * 4);
		break;
	case 8:
		for (size_t i = 0; i < count; i++)
			SwapInPlace<uint64>(data + i * 8);
		break;
	}
}

__attribute__((format(printf, 3, 4))) bool Fail(FlatProblem* problem, size_t offset,
                                                const char* format, ...)
{
	if (problem != nullptr) {
		problem->offset = offset;
		va_list args;
		va_start(args, format);
		vsnprintf(problem->reason, sizeof(problem->reason), format, args);
		va_end(args);
	}
	return false;
}

bool Walk(uint8* block, size_t size, const FlatWalk& how, int depth, size_t base, size_t* length,
          FlatProblem* problem);

bool SwapValue(type_code type, uint8* data, size_t size, bool swapped, int depth, size_t base,
               FlatProblem* problem)
{
	if (type == ZV_MESSAGE_TYPE) {
		FlatWalk nested;
		nested.swapped = swapped;
		nested.convert = true;
		nested.nested = true;
		return Walk(data, size, nested, depth + 1, base, nullptr, problem);
	}
	SwapElements(data, size, FlatElementWidth(type, size));
	return true;
}

bool Walk(uint8* block, size_t size, const FlatWalk& how, int depth, size_t base, size_t* length,
          FlatProblem* problem)
{
	if (depth > kMaxFlatNesting) {
		return Fail(problem, base, "messages nested more than %d levels deep", kMaxFlatNesting);
	}
	if (size < kHeaderSize) {
		return Fail(problem, base, "%zu bytes cannot hold the 12-byte header (what, flags, count)",
		            size);
	}
	const int32 count = static_cast<int32>(ReadWordIn(block + 8, how.swapped));
	if (count > 0 && static_cast<size_t>(count) > (size - kHeaderSize) / kMinRecordSize) {
		return Fail(problem, base + 8,
		            "item count %d cannot fit in the %zu bytes after the header, at least 9 "
		            "bytes a record",
		            count, size - kHeaderSize);
	}
	if (how.convert) {
		SwapWord(block);
		SwapWord(block + 4);
		SwapWord(block + 8);
	}

	size_t at = kHeaderSize;
	for (int32 i = 0; i < count; i++) {
		const size_t available = size - at;
		if (available < kMinRecordSize) {
			return Fail(problem, base + at,
			            "record %d of %d: %zu bytes left, a record takes at least 9", i + 1, count,
			            available);
		}
		uint8* record = block + at;
		const size_t nameSpan = available - 4 < kNameBufferSize ? available - 4 : kNameBufferSize;
		const void* terminator = memchr(record + 4, 0, nameSpan);
		if (terminator == nullptr) {
			return Fail(problem, base + at + 4,
			            "record %d of %d: the name has no terminator within %zu bytes", i + 1,
			            count, nameSpan);
		}
		const size_t nameSize = static_cast<const uint8*>(terminator) - (record + 4) + 1;
		const size_t sizeAt = 4 + nameSize;
		if (available - sizeAt < 4) {
			return Fail(problem, base + at + sizeAt,
			            "record %d of %d: the data size is cut off by the end of the block", i + 1,
			            count);
		}
		const int32 dataSize = static_cast<int32>(ReadWordIn(record + sizeAt, how.swapped));
		const size_t dataAt = sizeAt + 4;
		if (dataSize < 0) {
			return Fail(problem, base + at + sizeAt, "record %d of %d: negative data size %d",
			            i + 1, count, dataSize);
		}
		if (static_cast<size_t>(dataSize) > available - dataAt ||
		    dataSize > INT32_MAX - static_cast<int32>(dataAt)) {
			return Fail(problem, base + at + sizeAt,
			            "record %d of %d: data size %d runs past the end of the block (%zu "
			            "bytes left)",
			            i + 1, count, dataSize, available - dataAt);
		}
		const type_code type = ReadWordIn(record, how.swapped);
		uint8* data = record + dataAt;
		if (how.convert) {
			SwapWord(record);
			SwapWord(record + sizeAt);
			if (!SwapValue(type, data, dataSize, how.swapped, depth, base + at + dataAt, problem)) {
				return false;
			}
		} else if (how.nested && type == ZV_MESSAGE_TYPE) {
			FlatWalk nested = how;
			nested.exact = false;
			if (!Walk(data, dataSize, nested, depth + 1, base + at + dataAt, nullptr, problem))
				return false;
		}
		at += dataAt + dataSize;
	}

	if (how.exact && depth == 0 && at != size) {
		return Fail(problem, base + at, "%zu bytes follow the end of the block", size - at);
	}
	if (length != nullptr)
		*length = at;
	return true;
}

} // namespace

size_t FlatElementWidth(type_code type, size_t size)
{
	switch (type) {
	case ZV_INT16_TYPE:
		return 2;
	case ZV_INT32_TYPE:
	case ZV_FLOAT_TYPE:
		return 4;
	case ZV_INT64_TYPE:
	case ZV_DOUBLE_TYPE:
	case ZV_RECT_TYPE:
	case ZV_POINT_TYPE:
		return 8;
	case ZV_POINTER_TYPE:
		// The address in the writer's pointer width; any other size is not
		// an address this library wrote and stays as it is.
		return size == 4 || size == 8 ? size : 0;
	default:
		return 0;
	}
}

bool WalkFlatBlock(uint8* block, size_t size, const FlatWalk& how, size_t* length,
                   FlatProblem* problem)
{
	if (block == nullptr)
		return Fail(problem, 0, "no block");
	return Walk(block, size, how, 0, 0, length, problem);
}

bool CheckFlatBlock(const uint8* block, size_t size, const FlatWalk& how, size_t* length,
                    FlatProblem* problem)
{
	if (how.convert)
		return Fail(problem, 0, "a read-only block cannot be converted");
	// A walk that does not convert never writes through the pointer.
	return WalkFlatBlock(const_cast<uint8*>(block), size, how, length, problem);
}

bool SwapFlatValue(type_code type, uint8* data, size_t size, bool swapped, FlatProblem* problem)
{
	return SwapValue(type, data, size, swapped, 0, 0, problem);
}

} // namespace zvkit::internal
