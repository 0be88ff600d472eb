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
	memcpy(frame, kMagic, sizeof(kMagic));
	frame[4] = static_cast<uint8>(kind);
	frame[5] = order == ZV_BIG_ENDIAN ? 1 : 0;
	frame[6] = static_cast<uint8>(nameLength);
	frame[7] = 0;
	PutWord64(frame + 8, request, order);
	PutWord64(frame + 16, static_cast<uint64>(argument), order);
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

bool ReadFrameHeader(const uint8* frame, size_t size, FrameHeader* header)
{
	if (size < kFrameHeaderSize || memcmp(frame, kMagic, sizeof(kMagic)) != 0)
		return false;
	if (frame[4] < static_cast<uint8>(FrameKind::kPost) ||
	    frame[4] > static_cast<uint8>(FrameKind::kAnswer))
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
