// MessageParts.h: the parts of a message that few messages need.
//
// A request's link to its waiting sender and the name index of a message of
// many items are each held by a small share of messages. Rather than a word
// of each in every message, a message keeps one pointer to this record, made
// at the first need and deleted with the message; it stays null for a plain
// message of few items, the common case.
//
// Ownership: the message owns its record and the index in it; the reply
// slot is shared with the sender (see ReplySlot.h).
// Thread safety: none of its own; the message publishes the record and the
// index in it atomically, since const lookups may make them concurrently.
#ifndef _ZV_MESSAGING_MESSAGE_PARTS_H
#define _ZV_MESSAGING_MESSAGE_PARTS_H

#include <atomic>

namespace zvkit::internal {

class NameIndex;
class ReplySlot;

struct MessageParts
{
	// The waiting sender's reply slot; null when the message is no request.
	ReplySlot* replySlot = nullptr;
	// The name index; null while the message is small or none was needed.
	std::atomic<NameIndex*> index{nullptr};
};

} // namespace zvkit::internal

#endif // _ZV_MESSAGING_MESSAGE_PARTS_H
