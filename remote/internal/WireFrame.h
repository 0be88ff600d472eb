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
// A batch (kind 4) carries several post or request frames at once, so that
// a burst costs one ZeroMQ message: its header has name length 0, the
// number of frames k (1 to kMaxBatchFrames) in the request field and 0 in
// the argument field; then come k entries, each a 4-byte length in the
// batch's byte order followed by a whole frame of that length, and nothing
// after the last. The whole batch is at most kMaxBatchBytes. Each frame in
// it is read and checked on its own, as if it had come alone.
//
// Format 2 (kinds 1-4). Format 1 had no batches; its readers refuse them as
// malformed.
//
// Thread safety: the functions are reentrant.
#ifndef _ZV_INTERNAL_WIRE_FRAME_H
#define _ZV_INTERNAL_WIRE_FRAME_H

#include <SupportDefs.h>

#include <ZvByteOrder.h>

#include <stddef.h>

#include <vector>

class ZvMessage;

namespace zvkit {
namespace internal {

constexpr size_t kFrameHeaderSize = 24;
constexpr size_t kMaxTargetName = 63;
constexpr size_t kBatchEntryHeader = 4;
constexpr size_t kMaxBatchBytes = 64 * 1024;
constexpr size_t kMaxBatchFrames = 1024;

enum class FrameKind : uint8
{
	kPost = 1,
	kRequest = 2,
	kAnswer = 3,
	kBatch = 4
};

// A frame inside a batch.
struct FrameSpan
{
	const uint8* data = nullptr;
	size_t size = 0;
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

// The bytes one frame takes as an entry of a batch (its length word
// included).
constexpr size_t EntrySize(size_t nameLength, size_t flatSize)
{
	return kBatchEntryHeader + kFrameHeaderSize + nameLength + flatSize;
}

// Writes at "at" a batch entry of EntrySize(nameLength, flatSize) bytes: the
// length word, then a frame as BuildFrame makes it, with message (not null)
// flattened in order. False when the message cannot be flattened in that
// order. (The length word is read only in batches, which stay under
// kMaxBatchBytes; a bigger frame is sent alone, without it.)
bool WriteEntry(uint8* at, FrameKind kind, zv_byte_order order, uint64 request, int64 argument,
                const char* name, size_t nameLength, const ZvMessage* message, size_t flatSize);

// Writes the header of a batch of count frames at batch.
void WriteBatchHeader(uint8* batch, zv_byte_order order, size_t count);

// The bytes a batch of frames of total bytes takes, entries and header
// included, for count frames.
constexpr size_t BatchSize(size_t count, size_t bytes)
{
	return kFrameHeaderSize + count * kBatchEntryHeader + bytes;
}

// Splits the batch read into header (kind kBatch) into its frames. False
// when the batch is not well formed: a name, a count out of range, an
// entry that runs past the end, bytes after the last entry, or more than
// kMaxBatchBytes. The frames themselves are not looked at.
bool SplitBatch(const FrameHeader& header, std::vector<FrameSpan>* frames);

// Reads the header of the size bytes at frame. False when the frame is too
// short, has another magic, an unknown kind or order, a name too long for
// the frame or for a target, or a nonzero reserved byte.
bool ReadFrameHeader(const uint8* frame, size_t size, FrameHeader* header);

} // namespace internal
} // namespace zvkit

#endif // _ZV_INTERNAL_WIRE_FRAME_H
