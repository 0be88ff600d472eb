// ZvMessage's request side: answering the sender that waits on a message.
// It lives with the looper framework, which makes requests.

#include <ZvMessage.h>

#include "looper/internal/ReplySlot.h"

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
	zvkit::internal::ReplySlot* slot = fReplySlot;
	fReplySlot = nullptr;
	// A request answered already, or whose sender gave up, is left as it is.
	slot->Answer(nullptr);
	slot->Release();
}
