// ZvMessenger: names a handler and/or a looper of this process and posts to
// them.

#include <ZvMessenger.h>

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>

#include "base/internal/Checks.h"
#include "looper/internal/LiveLoopers.h"

namespace {

// The delivery rule shared by both payloads (a what code or a message):
// first aimed at the handler, through its own looper or else the explicit
// one; then, whenever there is an explicit looper, once more to that looper
// without a handler.
template <typename Payload> void Deliver(ZvHandler* handler, ZvLooper* looper, Payload payload)
{
	// Checked mode: a link to a looper that is gone is refused before
	// anything is posted.
	if (zvkit::internal::ChecksOn()) {
		if (handler != nullptr &&
		    !zvkit::internal::CheckLooperLive(handler->Looper(), "ZvMessenger::SendMessage"))
			return;
		if (!zvkit::internal::CheckLooperLive(looper, "ZvMessenger::SendMessage"))
			return;
	}
	if (handler != nullptr) {
		ZvLooper* owner = handler->Looper();
		if (owner != nullptr)
			owner->PostMessage(payload, handler);
		else if (looper == nullptr) {
			if (zvkit::internal::ChecksOn()) {
				zvkit::internal::CheckReport("ZvMessenger::SendMessage",
				                             "handler %p is in no looper and the messenger names "
				                             "none; nothing is posted",
				                             static_cast<const void*>(handler));
			}
			return;
		} else
			looper->PostMessage(payload, handler);
	}
	if (looper != nullptr)
		looper->PostMessage(payload, nullptr);
}

} // namespace

ZvMessenger::ZvMessenger(ZvHandler* handler, ZvLooper* looper) : fLooper(looper), fHandler(handler)
{
}

ZvMessenger::ZvMessenger(const ZvMessenger& other)
    : fLooper(other.fLooper), fHandler(other.fHandler)
{
}

ZvMessenger& ZvMessenger::operator=(const ZvMessenger& other)
{
	fLooper = other.fLooper;
	fHandler = other.fHandler;
	return *this;
}

void ZvMessenger::SendMessage(uint32 what)
{
	Deliver(fHandler, fLooper, what);
}

void ZvMessenger::SendMessage(const ZvMessage* message)
{
	Deliver(fHandler, fLooper, message);
}

void ZvMessenger::SendMessage(const ZvMessage* message, ZvMessage* reply, int32, int32)
{
	SendMessage(message);
	if (reply != nullptr)
		reply->what = ZV_NO_REPLY;
}

bool ZvMessenger::IsValid() const
{
	return fLooper != nullptr || (fHandler != nullptr && fHandler->Looper() != nullptr);
}

bool ZvMessenger::IsTargetLocal() const
{
	return true;
}

ZvHandler* ZvMessenger::Target(ZvLooper** looper)
{
	if (looper != nullptr) {
		if (fLooper == nullptr && fHandler != nullptr)
			*looper = fHandler->Looper();
		else
			*looper = fLooper;
	}
	return fHandler;
}
