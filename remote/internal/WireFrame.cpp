// Building and reading the frames endpoints exchange.
#include "remote/internal/WireFrame.h"

#include <ZvMessage.h>

#include <string.h>

namespace zvkit {
namespace internal {

namespace {

constexpr uint8 kMagic[4] = {'Z', 'v', 'R', 'm'};

bool IsHostOrder(zv_byte_order order)
{
	return order == ZV_HostByteOrder();
}

void PutWord64(uint8* at, uint64 value, zv_byte_order order)
{
	if (!IsHostOrder(order))
		value = __builtin_bswap64(value);
	memcpy(at, &value, sizeof(value));
}

void PutWord32(uint8* at, uint32 value, zv_byte_order order)
{
	if (!IsHostOrder(order))
		value = __builtin_bswap32(value);
	memcpy(at, &value, sizeof(value));
}

uint32 GetWord32(const uint8* at, zv_byte_order order)
{
	uint32 value;
	memcpy(&value, at, sizeof(value));
	return IsHostOrder(order) ? value : __builtin_bswap32(value);
}

void PutHeader(uint8* frame, FrameKind kind, zv_byte_order order, uint64 request, int64 argument,
               size_t nameLength)
{
	memcpy(frame, kMagic, sizeof(kMagic));
	frame[4] = static_cast<uint8>(kind);
	frame[5] = order == ZV_BIG_ENDIAN ? 1 : 0;
	frame[6] = static_cast<uint8>(nameLength);
	frame[7] = 0;
	PutWord64(frame + 8, request, order);
	PutWord64(frame + 16, static_cast<uint64>(argument), order);
}

uint64 GetWord64(const uint8* at, zv_byte_order order)
{
	uint64 value;
	memcpy(&value, at, sizeof(value));
	return IsHostOrder(order) ? value : __builtin_bswap64(value);
}

} // namespace

uint8* BuildFrame(FrameKind kind, zv_byte_order order, uint64 request, int64 argument,
                  const char* name, size_t nameLength, const ZvMessage* message, size_t* size)
{
	const size_t flatSize = message != nullptr ? static_cast<size_t>(message->FlattenedSize()) : 0;
	const size_t total = kFrameHeaderSize + nameLength + flatSize;
	uint8* frame = new uint8[total];
	PutHeader(frame, kind, order, request, argument, nameLength);
	if (nameLength > 0)
		memcpy(frame + kFrameHeaderSize, name, nameLength);
	if (message != nullptr &&
	    message->Flatten(frame + kFrameHeaderSize + nameLength, order) != B_OK) {
		delete[] frame;
		return nullptr;
	}
	*size = total;
	return frame;
}

bool WriteEntry(uint8* at, FrameKind kind, zv_byte_order order, uint64 request, int64 argument,
                const char* name, size_t nameLength, const ZvMessage* message, size_t flatSize)
{
	const size_t frameSize = kFrameHeaderSize + nameLength + flatSize;
	PutWord32(at, static_cast<uint32>(frameSize), order);
	uint8* frame = at + kBatchEntryHeader;
	PutHeader(frame, kind, order, request, argument, nameLength);
	if (nameLength > 0)
		memcpy(frame + kFrameHeaderSize, name, nameLength);
	return message->Flatten(frame + kFrameHeaderSize + nameLength, order) == B_OK;
}

void WriteBatchHeader(uint8* batch, zv_byte_order order, size_t count)
{
	PutHeader(batch, FrameKind::kBatch, order, count, 0, 0);
}

bool SplitBatch(const FrameHeader& header, std::vector<FrameSpan>* frames)
{
	frames->clear();
	if (header.kind != FrameKind::kBatch || header.nameLength != 0 || header.argument != 0 ||
	    header.request == 0 || header.request > kMaxBatchFrames ||
	    header.bodySize > kMaxBatchBytes - kFrameHeaderSize)
		return false;
	const uint8* at = header.body;
	size_t left = header.bodySize;
	for (uint64 i = 0; i < header.request; i++) {
		if (left < kBatchEntryHeader)
			return false;
		const size_t length = GetWord32(at, header.order);
		left -= kBatchEntryHeader;
		at += kBatchEntryHeader;
		if (length > left)
			return false;
		frames->push_back({at, length});
		at += length;
		left -= length;
	}
	return left == 0;
}

bool ReadFrameHeader(const uint8* frame, size_t size, FrameHeader* header)
{
	if (size < kFrameHeaderSize || memcmp(frame, kMagic, sizeof(kMagic)) != 0)
		return false;
	if (frame[4] < static_cast<uint8>(FrameKind::kPost) ||
	    frame[4] > static_cast<uint8>(FrameKind::kBatch))
		return false;
	if (frame[5] > 1 || frame[7] != 0)
		return false;
	const size_t nameLength = frame[6];
	if (nameLength > kMaxTargetName || kFrameHeaderSize + nameLength > size)
		return false;
	header->kind = static_cast<FrameKind>(frame[4]);
	header->order = frame[5] == 1 ? ZV_BIG_ENDIAN : ZV_LITTLE_ENDIAN;
	header->request = GetWord64(frame + 8, header->order);
	header->argument = static_cast<int64>(GetWord64(frame + 16, header->order));
	header->name = reinterpret_cast<const char*>(frame + kFrameHeaderSize);
	header->nameLength = nameLength;
	header->body = frame + kFrameHeaderSize + nameLength;
	header->bodySize = size - kFrameHeaderSize - nameLength;
	return true;
}

} // namespace internal
} // namespace zvkit
