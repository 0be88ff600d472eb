// Messenger.cpp: BMessenger and the delivery path shared with BLooper and
// BMessage::SendReply.

#include <Messenger.h>

#include <Handler.h>
#include <Looper.h>
#include <Message.h>

#include "AppPrivate.h"

#include <chrono>

#include <unistd.h>

using BPrivate::LooperAccess;
using BPrivate::LooperRegistry;
using BPrivate::MessageAccess;
using BPrivate::MessageDelivery;
using BPrivate::ReplyChannel;

status_t BPrivate::DeliverTo(int32 looperId, int32 token, const BMessage* message,
                             BHandler* replyTo, const std::shared_ptr<ReplyChannel>& waiter,
                             bigtime_t timeout)
{
	LooperRegistry::Target target;
	if (!LooperRegistry::Find(looperId, &target))
		return B_BAD_PORT_ID;

	BMessage* copy = MessageAccess::CopyForDelivery(message);
	MessageDelivery* delivery = MessageAccess::Delivery(copy);
	delivery->targetToken = token;
	delivery->waiter = waiter;
	BLooper* replyLooper = replyTo != nullptr ? replyTo->Looper() : nullptr;
	if (replyLooper != nullptr) {
		delivery->replyLooper = LooperAccess::Id(replyLooper);
		delivery->replyToken = LooperAccess::Token(replyTo);
	}
	// The port is held by reference, so pushing is safe even if the looper
	// is deleted meanwhile: the port is then closed and refuses the copy.
	status_t status = target.port->Push(copy, timeout);
	if (status != B_OK) {
		// Not queued: nobody will answer, and the sender must not wait.
		delivery->waiter.reset();
		delete copy;
	}
	return status;
}

BMessenger::BMessenger() : fLooperId(-1), fHandlerToken(-1) {}

BMessenger::BMessenger(const BHandler* handler, const BLooper* looper, status_t* result)
    : fLooperId(-1), fHandlerToken(-1)
{
	status_t status = B_OK;
	if (handler != nullptr) {
		BLooper* handlerLooper = handler->Looper();
		if (handlerLooper == nullptr || (looper != nullptr && looper != handlerLooper)) {
			status = B_MISMATCHED_VALUES;
		} else {
			fLooperId = LooperAccess::Id(handlerLooper);
			fHandlerToken = LooperAccess::Token(handler);
		}
	} else if (looper != nullptr) {
		fLooperId = LooperAccess::Id(looper);
	} else {
		status = B_BAD_VALUE;
	}
	if (result != nullptr)
		*result = status;
}

BMessenger::BMessenger(const BMessenger& other)
    : fLooperId(other.fLooperId), fHandlerToken(other.fHandlerToken)
{
}

BMessenger::~BMessenger() {}

BMessenger& BMessenger::operator=(const BMessenger& other)
{
	fLooperId = other.fLooperId;
	fHandlerToken = other.fHandlerToken;
	return *this;
}

bool BMessenger::operator==(const BMessenger& other) const
{
	return fLooperId == other.fLooperId && fHandlerToken == other.fHandlerToken;
}

bool BMessenger::operator!=(const BMessenger& other) const
{
	return !(*this == other);
}

bool BMessenger::IsValid() const
{
	return fLooperId >= 0 && LooperRegistry::Exists(fLooperId);
}

bool BMessenger::IsTargetLocal() const
{
	// Every looper lives in this process.
	return IsValid();
}

BHandler* BMessenger::Target(BLooper** looper) const
{
	BLooper* foundLooper = nullptr;
	BHandler* handler = nullptr;
	if (fLooperId < 0 ||
	    !LooperRegistry::FindHandler(fLooperId, fHandlerToken, &foundLooper, &handler)) {
		foundLooper = nullptr;
		handler = nullptr;
	}
	if (looper != nullptr)
		*looper = foundLooper;
	return handler;
}

team_id BMessenger::Team() const
{
	return IsValid() ? static_cast<team_id>(getpid()) : -1;
}

status_t BMessenger::SendMessage(uint32 command, BHandler* replyTo) const
{
	BMessage message(command);
	return SendMessage(&message, replyTo);
}

status_t BMessenger::SendMessage(BMessage* message, BHandler* replyTo, bigtime_t timeout) const
{
	if (message == nullptr)
		return B_BAD_VALUE;
	if (fLooperId < 0)
		return B_BAD_PORT_ID;
	return BPrivate::DeliverTo(fLooperId, fHandlerToken, message, replyTo, nullptr, timeout);
}

status_t BMessenger::SendMessage(uint32 command, BMessage* reply) const
{
	BMessage message(command);
	return SendMessage(&message, reply);
}

status_t BMessenger::SendMessage(BMessage* message, BMessage* reply, bigtime_t deliveryTimeout,
                                 bigtime_t replyTimeout) const
{
	if (message == nullptr || reply == nullptr)
		return B_BAD_VALUE;
	LooperRegistry::Target target;
	if (fLooperId < 0 || !LooperRegistry::Find(fLooperId, &target))
		return B_BAD_PORT_ID;
	// The looper's thread could never answer while it waits here.
	if (target.thread >= 0 && target.thread == find_thread(nullptr))
		return B_MESSAGE_TO_SELF;

	std::shared_ptr<ReplyChannel> channel = std::make_shared<ReplyChannel>();
	status_t status =
	    BPrivate::DeliverTo(fLooperId, fHandlerToken, message, nullptr, channel, deliveryTimeout);
	if (status != B_OK)
		return status;

	// The answer arrives from SendReply, or as B_NO_REPLY when the message
	// is deleted unanswered (which always happens eventually: after its
	// dispatch, or when its looper is deleted with it still queued).
	std::unique_lock<std::mutex> lock(channel->lock);
	auto answered = [&channel] { return channel->reply != nullptr; };
	if (replyTimeout >= BPrivate::kUnlimitedWait) {
		channel->answered.wait(lock, answered);
	} else if (!channel->answered.wait_for(
	               lock, std::chrono::microseconds(replyTimeout > 0 ? replyTimeout : 0),
	               answered)) {
		return B_TIMED_OUT;
	}
	*reply = *channel->reply;
	return B_OK;
}
