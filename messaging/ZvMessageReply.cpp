// ZvMessage's request side: the link between a request and the sender
// that waits for its answer.

#include <ZvMessage.h>

#include "messaging/ReplySlot.h"

using zvkit::internal::ReplySlot;

status_t ZvMessage::SendReply(const ZvMessage* reply)
{
	if (reply == nullptr)
		return B_BAD_VALUE;
	if (fReplySlot == nullptr)
		return B_BAD_REPLY;
	// The link stays until the message is deleted, so that a second answer
	// is told it is one.
	return fReplySlot->Answer(reply);
}

bool ZvMessage::IsSourceWaiting() const
{
	return fReplySlot != nullptr && fReplySlot->IsSenderWaiting();
}

void ZvMessage::_AbandonRequest()
{
	ReplySlot* slot = fReplySlot;
	fReplySlot = nullptr;
	// A request answered already, or whose sender gave up, is left as it is.
	slot->Answer(nullptr);
	slot->Release();
}

ReplySlot* ZvMessage::_MakeRequest()
{
	ReplySlot* slot = new ReplySlot;
	fReplySlot = slot;
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
