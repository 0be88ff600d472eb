// WireFrame.h: the one-frame form of a message between endpoints.
//
//   offset  size  field
//   0       4     magic "ZvRm"
//   4       1     kind (FrameKind)
//   5       1     byte order of the fields below and of the message:
//                 0 little-endian, 1 big-endian
//   6       1     length n of the target's name (0 to 63; 0 in answers)
//   7       1     zero
//   8       8     request number (requests and answers; 0 in posts)
//   16      8     a request's time-out in microseconds (-1: none), an
//                 answer's status_t; 0 in posts
//   24      n     the target's name, without terminator
//   24 + n  rest  the flattened message (absent in answers other than B_OK)
//
// Thread safety: the functions are reentrant.
#ifndef _ZV_INTERNAL_WIRE_FRAME_H
#define _ZV_INTERNAL_WIRE_FRAME_H

#include <SupportDefs.h>

#include <ZvByteOrder.h>

#include <stddef.h>

class ZvMessage;

namespace zvkit {
namespace internal {

constexpr size_t kFrameHeaderSize = 24;
constexpr size_t kMaxTargetName = 63;

enum class FrameKind : uint8
{
	kPost = 1,
	kRequest = 2,
	kAnswer = 3
};

struct FrameHeader
{
	FrameKind kind = FrameKind::kPost;
	zv_byte_order order = ZV_LITTLE_ENDIAN;
	uint64 request = 0;
	int64 argument = 0;
	const char* name = nullptr; // in the frame, not terminated
	size_t nameLength = 0;
	const uint8* body = nullptr;
	size_t bodySize = 0;
};

// Builds a frame in a new buffer of *size bytes (free it with
// delete[]): header, name and, when message is not null, the message
// flattened in order (ZV_LITTLE_ENDIAN or ZV_BIG_ENDIAN). Returns null when
// the message cannot be flattened in that order.
uint8* BuildFrame(FrameKind kind, zv_byte_order order, uint64 request, int64 argument,
                  const char* name, size_t nameLength, const ZvMessage* message, size_t* size);

// Reads the header of the size bytes at frame. False when the frame is too
// short, has another magic, an unknown kind or order, a name too long for
// the frame or for a target, or a nonzero reserved byte.
bool ReadFrameHeader(const uint8* frame, size_t size, FrameHeader* header);

} // namespace internal
} // namespace zvkit

#endif // _ZV_INTERNAL_WIRE_FRAME_H
