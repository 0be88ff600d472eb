// ZvMessage's request side: the link between a request and the sender
// that waits for its answer.

#include <ZvMessage.h>

#include "messaging/MessageParts.h"
#include "messaging/ReplySlot.h"

using zvkit::internal::MessageParts;
using zvkit::internal::ReplySlot;

status_t ZvMessage::SendReply(const ZvMessage* reply)
{
	if (reply == nullptr)
		return B_BAD_VALUE;
	MessageParts* parts = fParts.load(std::memory_order_relaxed);
	if (parts == nullptr || parts->replySlot == nullptr)
		return B_BAD_REPLY;
	// The link stays until the message is deleted, so that a second answer
	// is told it is one.
	return parts->replySlot->Answer(reply);
}

bool ZvMessage::IsSourceWaiting() const
{
	const MessageParts* parts = fParts.load(std::memory_order_relaxed);
	return parts != nullptr && parts->replySlot != nullptr && parts->replySlot->IsSenderWaiting();
}

void ZvMessage::_AbandonRequest()
{
	MessageParts* parts = fParts.load(std::memory_order_relaxed);
	ReplySlot* slot = parts->replySlot;
	parts->replySlot = nullptr;
	// A request answered already, or whose sender gave up, is left as it is.
	slot->Answer(nullptr);
	slot->Release();
}

ReplySlot* ZvMessage::_MakeRequest()
{
	ReplySlot* slot = new ReplySlot;
	_Parts()->replySlot = slot;
	return slot;
}

status_t ZvMessage::_AwaitReply(ReplySlot* slot, bigtime_t deadline, ZvMessage* reply,
                                bool* answered)
{
	const status_t status = slot->Wait(deadline, reply, answered);
	slot->Release();
	return status;
}

void ZvMessage::_ForgetRequest(ReplySlot* slot)
{
	slot->Release();
}
