// ZvRemoteEndpoint and ZvRemoteRef: thin handles on the shared engine.
#include <ZvRemote.h>

#include <ZvMessage.h>

#include "remote/internal/RemoteEngine.h"

#include <string.h>

using zvkit::internal::RemoteEngine;

ZvRemoteEndpoint::ZvRemoteEndpoint() : fEngine(std::make_shared<RemoteEngine>()) {}

ZvRemoteEndpoint::~ZvRemoteEndpoint()
{
	fEngine->Stop();
}

status_t ZvRemoteEndpoint::InitCheck() const
{
	return fEngine->InitCheck();
}

status_t ZvRemoteEndpoint::Bind(const char* address)
{
	return fEngine->Bind(address);
}

status_t ZvRemoteEndpoint::Publish(const char* name, const ZvLooperRef& target)
{
	return fEngine->Publish(name, target);
}

status_t ZvRemoteEndpoint::Unpublish(const char* name)
{
	return fEngine->Unpublish(name);
}

status_t ZvRemoteEndpoint::Connect(const char* address, const char* name, ZvRemoteRef* ref)
{
	if (ref == nullptr || name == nullptr)
		return B_BAD_VALUE;
	const size_t length = strnlen(name, ZV_REMOTE_NAME_LENGTH + 1);
	if (length == 0 || length > ZV_REMOTE_NAME_LENGTH)
		return B_BAD_VALUE;
	int32 peer;
	const status_t status = fEngine->Connect(address, &peer);
	if (status != B_OK)
		return status;
	ref->fEngine = fEngine;
	ref->fPeer = peer;
	memcpy(ref->fName, name, length + 1);
	return B_OK;
}

status_t ZvRemoteEndpoint::SetMaxFrameSize(size_t bytes)
{
	return fEngine->SetMaxFrameSize(bytes);
}

size_t ZvRemoteEndpoint::MaxFrameSize() const
{
	return fEngine->MaxFrameSize();
}

status_t ZvRemoteEndpoint::SetWireOrder(zv_byte_order order)
{
	return fEngine->SetWireOrder(order);
}

status_t ZvRemoteEndpoint::SetQueueLimit(int32 frames)
{
	return fEngine->SetQueueLimit(frames);
}

status_t ZvRemoteEndpoint::SetLinger(bigtime_t timeout)
{
	return fEngine->SetLinger(timeout);
}

void ZvRemoteEndpoint::SetReportTarget(const ZvLooperRef& target)
{
	fEngine->SetReportTarget(target);
}

status_t ZvRemoteEndpoint::GetStats(zv_remote_stats* stats) const
{
	if (stats == nullptr)
		return B_BAD_VALUE;
	fEngine->GetStats(stats);
	return B_OK;
}

ZvRemoteRef::ZvRemoteRef() : fPeer(-1), fName() {}

ZvRemoteRef::ZvRemoteRef(const ZvRemoteRef& other) : fEngine(other.fEngine), fPeer(other.fPeer)
{
	memcpy(fName, other.fName, sizeof(fName));
}

ZvRemoteRef& ZvRemoteRef::operator=(const ZvRemoteRef& other)
{
	if (this != &other) {
		fEngine = other.fEngine;
		fPeer = other.fPeer;
		memcpy(fName, other.fName, sizeof(fName));
	}
	return *this;
}

ZvRemoteRef::~ZvRemoteRef() = default;

bool ZvRemoteRef::IsValid() const
{
	return fEngine != nullptr && !fEngine->IsStopped();
}

const char* ZvRemoteRef::Name() const
{
	return fName;
}

status_t ZvRemoteRef::PostMessage(const ZvMessage* message, bigtime_t timeout) const
{
	if (fEngine == nullptr)
		return B_BAD_VALUE;
	return fEngine->Post(fPeer, fName, message, timeout);
}

status_t ZvRemoteRef::PostMessage(uint32 what, bigtime_t timeout) const
{
	const ZvMessage message(what);
	return PostMessage(&message, timeout);
}

status_t ZvRemoteRef::SendMessage(const ZvMessage* message, ZvMessage* reply,
                                  bigtime_t timeout) const
{
	if (fEngine == nullptr)
		return B_BAD_VALUE;
	return fEngine->Request(fPeer, fName, message, reply, timeout);
}

status_t ZvRemoteRef::SendMessage(uint32 what, ZvMessage* reply, bigtime_t timeout) const
{
	const ZvMessage message(what);
	return SendMessage(&message, reply, timeout);
}
