// ZvLooperRef: posts and requests through shared control blocks, so that a
// ref never touches a looper or handler that is gone.
//
// A post enters the looper's block as a poster (one atomic add on that
// looper's own block, no lock shared with other loopers), checks the
// handler's attachment, queues its copy and leaves. The looper refuses
// posters once it begins to end and waits for those inside before it is
// deleted (ZvLooper::_Retire), so everything between Enter and Leave works
// on a live looper.

#include <ZvLooperRef.h>

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>
#include <ZvMessenger.h>

#include <OS.h>

#include "base/internal/CurrentThread.h"
#include "looper/internal/LooperControl.h"

using zvkit::internal::HandlerControl;
using zvkit::internal::LooperControl;
using zvkit::internal::ReplySlot;

namespace {

const char* const kPreferredHandlerField = "_preferredhandler";

} // namespace

ZvLooperRef::ZvLooperRef()
    : fLooper(nullptr), fHandlerControl(nullptr), fHandler(nullptr), fStamp(0)
{
}

ZvLooperRef::ZvLooperRef(const ZvLooper* looper) : ZvLooperRef()
{
	if (looper == nullptr)
		return;
	fLooper = looper->_Control();
	fLooper->Acquire();
}

ZvLooperRef::ZvLooperRef(const ZvHandler* handler) : ZvLooperRef()
{
	if (handler == nullptr)
		return;
	fHandlerControl = handler->fControl;
	fHandlerControl->Acquire();
	fHandler = handler;
	// Null for a handler that is not attached: the ref is then invalid, and
	// stays so even if the handler is attached later.
	fLooper = fHandlerControl->CurrentAttachment(&fStamp);
}

ZvLooperRef::ZvLooperRef(const ZvLooperRef& other)
    : fLooper(other.fLooper), fHandlerControl(other.fHandlerControl), fHandler(other.fHandler),
      fStamp(other.fStamp)
{
	if (fLooper != nullptr)
		fLooper->Acquire();
	if (fHandlerControl != nullptr)
		fHandlerControl->Acquire();
}

ZvLooperRef& ZvLooperRef::operator=(const ZvLooperRef& other)
{
	// Taken before the old ones are dropped: safe for self-assignment.
	if (other.fLooper != nullptr)
		other.fLooper->Acquire();
	if (other.fHandlerControl != nullptr)
		other.fHandlerControl->Acquire();
	if (fLooper != nullptr)
		fLooper->Release();
	if (fHandlerControl != nullptr)
		fHandlerControl->Release();
	fLooper = other.fLooper;
	fHandlerControl = other.fHandlerControl;
	fHandler = other.fHandler;
	fStamp = other.fStamp;
	return *this;
}

ZvLooperRef::~ZvLooperRef()
{
	if (fLooper != nullptr)
		fLooper->Release();
	if (fHandlerControl != nullptr)
		fHandlerControl->Release();
}

bool ZvLooperRef::IsValid() const
{
	if (fLooper == nullptr || !fLooper->IsAlive())
		return false;
	return fHandlerControl == nullptr || fHandlerControl->Holds(fStamp);
}

status_t ZvLooperRef::PostMessage(const ZvMessage* message, bigtime_t timeout) const
{
	if (message == nullptr)
		return B_BAD_VALUE;
	return _Post(message, 0, nullptr, timeout);
}

status_t ZvLooperRef::PostMessage(uint32 what, bigtime_t timeout) const
{
	return _Post(nullptr, what, nullptr, timeout);
}

status_t ZvLooperRef::PostOwnedMessage(ZvMessage* message, bigtime_t timeout) const
{
	if (message == nullptr)
		return B_BAD_VALUE;
	status_t status = B_BAD_VALUE;
	if (fLooper != nullptr && fLooper->Enter()) {
		// As _Post, without the copy.
		if (fHandlerControl == nullptr || fHandlerControl->Holds(fStamp)) {
			message->RemoveName(kPreferredHandlerField);
			status = fLooper->Looper()->_PostOwned(message, fHandler, timeout);
			message = nullptr;
		}
		fLooper->Leave();
	}
	delete message;
	return status;
}

status_t ZvLooperRef::SendMessage(uint32 what, ZvMessage* reply, bigtime_t timeout) const
{
	const ZvMessage message(what);
	return SendMessage(&message, reply, timeout);
}

status_t ZvLooperRef::SendMessage(const ZvMessage* message, ZvMessage* reply,
                                  bigtime_t timeout) const
{
	if (message == nullptr || reply == nullptr || fLooper == nullptr)
		return B_BAD_VALUE;
	// The looper's thread would wait for itself.
	if (fLooper->Thread() == zvkit::internal::CurrentThread())
		return B_WOULD_BLOCK;

	const bool forever = timeout < 0 || timeout == B_INFINITE_TIMEOUT;
	const bigtime_t deadline = forever ? -1 : system_time() + timeout;

	ReplySlot* slot = nullptr;
	status_t status = _Post(message, 0, &slot, timeout);
	if (status != B_OK) {
		if (slot != nullptr)
			ZvMessage::_ForgetRequest(slot);
		return status;
	}
	bool answered = false;
	status = ZvMessage::_AwaitReply(slot, deadline, reply, &answered);
	if (status == B_OK && !answered) {
		// Deleted unanswered: the value the messenger's reply form uses.
		reply->MakeEmpty();
		reply->what = ZV_NO_REPLY;
	}
	return status;
}

bool ZvLooperRef::operator==(const ZvLooperRef& other) const
{
	return fLooper == other.fLooper && fHandlerControl == other.fHandlerControl &&
	       fStamp == other.fStamp;
}

status_t ZvLooperRef::_Post(const ZvMessage* message, uint32 what, ReplySlot** request,
                            bigtime_t timeout) const
{
	status_t status = B_BAD_VALUE;
	if (fLooper != nullptr && fLooper->Enter()) {
		// The handler is tested inside: a handler removed after this test
		// is not in the looper's list when its message comes up, and the
		// looper drops the message.
		if (fHandlerControl == nullptr || fHandlerControl->Holds(fStamp)) {
			ZvMessage* copy;
			if (message != nullptr) {
				copy = new ZvMessage(message);
				// A message received from a looper and passed on still names
				// its first target; the ref's own target replaces it.
				copy->RemoveName(kPreferredHandlerField);
			} else {
				copy = new ZvMessage(what);
			}
			// The request releases its reference to the slot when it is
			// deleted, queued or not.
			if (request != nullptr)
				*request = copy->_MakeRequest();
			status = fLooper->Looper()->_PostOwned(copy, fHandler, timeout);
		}
		fLooper->Leave();
	}
	return status;
}
