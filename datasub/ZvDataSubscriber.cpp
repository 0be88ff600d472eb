// ZvDataSubscriber.cpp: one endpoint of a named data attribute.
#include <ZvDataSubscriber.h>

#include <Handler.h>
#include <Looper.h>
#include <Message.h>
#include <Messenger.h>
#include <TypeConstants.h>

#include <ZvDataRegistry.h>
#include <ZvSemaphore.h>

#include "DataFlags.h"
#include "RegistryGuard.h"
#include "base/internal/Semaphores.h"

#include <stdio.h>
#include <string.h>

#include <new>

using namespace zvkit::internal;

namespace {

const int32 kNameBufferSize = 32;
const thread_id kNoEventThread = -1;

const char* const kSourceField = "Source";
const char* const kTouchedWhatField = "touched_what";

const char* const kArchiveName = "DS_ATTRIBUTENAME";
const char* const kArchiveTouched = "DS_TOUCHEDWHAT";
const char* const kArchiveInteger = "DS_INTEGER";
const char* const kArchiveFloat = "DS_FLOAT";
const char* const kArchiveString = "DS_STRING";
const char* const kArchiveRaw = "DS_RAW";
const char* const kArchiveMessage = "DS_MESSAGE";

// A zeroed 32-byte buffer holding at most 31 characters of name, or null if
// it cannot be allocated.
char* NewNameBuffer(const char* name)
{
	char* buffer = new (std::nothrow) char[kNameBufferSize];
	if (buffer == nullptr)
		return nullptr;
	memset(buffer, 0, kNameBufferSize);
	if (name != nullptr)
		strncpy(buffer, name, kNameBufferSize - 1);
	return buffer;
}

} // namespace

// The access path of one data operation. The locked path (the attribute's
// semaphore held for the whole operation) is taken when the subscriber is
// subscribed and not in event in this thread; otherwise the direct path,
// with no lock: either nobody else reaches this subscriber's data (not
// subscribed), or this thread already holds the semaphore (it is running
// this subscriber's DS_EventReceived inside a propagation).
class ZvDataSubscriber::Access
{
public:
	explicit Access(const ZvDataSubscriber* subscriber)
	    : fSem(subscriber->ds_InEvent() ? kNoSemaphore
	                                    : subscriber->fSemaphore.load(std::memory_order_relaxed)),
	      fHeld(false)
	{
		// The identifier is saved: an unsubscription may clear the
		// subscriber's copy, but it can only do so while holding the
		// semaphore, so never while this operation holds it.
		if (fSem != kNoSemaphore)
			fHeld = AcquireSemaphore(fSem, -1) == WaitResult::kAcquired;
	}

	~Access()
	{
		if (fHeld)
			ZvSemaphore::Release(fSem);
	}

	Access(const Access&) = delete;
	Access& operator=(const Access&) = delete;

	// The semaphore could not be had (it was deleted meanwhile).
	bool Failed() const { return fSem != kNoSemaphore && !fHeld; }
	bool Locked() const { return fHeld; }

private:
	const uint32 fSem;
	bool fHeld;
};

ZvDataSubscriber::ZvDataSubscriber(const char* name, uint32 flags)
    : fInteger(0), fFloat(0.0), fString(nullptr), fRaw(nullptr), fRawSize(0), fMessage(nullptr),
      fValid(false), fEventThread(kNoEventThread), fSemaphore(0), fName(nullptr),
      fEventTarget(nullptr), fEventMessage(nullptr), fFlags(0), fNext(nullptr), fPrevious(nullptr)
{
	if (name == nullptr || name[0] == '\0')
		return;
	fName = NewNameBuffer(name);
	if (fName == nullptr)
		return;
	fValid = true;
	DS_Subscribe(flags, true);
}

ZvDataSubscriber::~ZvDataSubscriber()
{
	if (fValid)
		DS_UnSubscribe();
	delete[] fString;
	delete[] static_cast<char*>(fRaw);
	delete fMessage;
	delete fEventMessage;
	delete[] fName;
}

void ZvDataSubscriber::DS_EventReceived(uint32) {}

void ZvDataSubscriber::DS_Subscribed(bool) {}

bool ZvDataSubscriber::ds_InEvent() const
{
	return fEventThread.load(std::memory_order_relaxed) == find_thread(nullptr);
}

bool ZvDataSubscriber::ds_HasName() const
{
	return fValid && fName != nullptr;
}

// #pragma mark - Name and subscription

const char* ZvDataSubscriber::DS_AttributeName()
{
	return fValid ? fName : nullptr;
}

status_t ZvDataSubscriber::DS_SetAttributeName(const char* name)
{
	RegistryGuard guard;
	// Renaming needs an existing registry, even for a subscriber that never
	// subscribed: it is the registry that says whether it is subscribed.
	LockedRegistry registry(zv_registry);
	if (!registry.IsLocked() || registry->DR_SubscriberSubscribed(this))
		return -1;
	delete[] fName;
	fName = NewNameBuffer(name);
	// An empty name is accepted here, unlike in the constructor.
	fValid = fName != nullptr && name != nullptr;
	return fValid ? 0 : -1;
}

status_t ZvDataSubscriber::DS_Subscribe(uint32 flags, bool notify)
{
	if (!fValid || ds_InEvent())
		return -1;
	fFlags.store(flags, std::memory_order_relaxed);

	RegistryGuard guard;
	if (zv_registry == nullptr) {
		zv_registry = new (std::nothrow) ZvDataRegistry;
		if (zv_registry == nullptr)
			return -1;
	}
	LockedRegistry registry(zv_registry);
	if (!registry.IsLocked())
		return -1;
	if (registry->DR_SubscriberSubscribed(this)) {
		fprintf(stderr, "ZvDataSubscriber::Subscribe(): Already subscribed.\n");
		return -1;
	}
	if (registry->DR_Subscribe(this, notify) == 0)
		return 0;
	fprintf(stderr, "ZvDataSubscriber::Subscribe(): Subscription failed.\n");
	return -1;
}

status_t ZvDataSubscriber::DS_UnSubscribe()
{
	if (!fValid || ds_InEvent())
		return -1;

	RegistryGuard guard;
	LockedRegistry registry(zv_registry);
	if (!registry.IsLocked() || !registry->DR_SubscriberSubscribed(this))
		return -1;
	if (registry->DR_UnSubscribe(this) != 0) {
		fprintf(stderr, "ZvDataSubscriber::ZvDataSubscriber(): Unsubscription failed.\n");
		return -1;
	}
	if (registry->DR_CountAttributes() == 0) {
		// The registry goes with its last attribute. It is deleted while
		// still locked; its destructor gives back the lock levels this
		// thread holds. The guard keeps every other thread from reaching
		// it meanwhile.
		ZvDataRegistry* last = registry.Get();
		registry.Forget();
		zv_registry = nullptr;
		delete last;
	}
	return 0;
}

bool ZvDataSubscriber::DS_IsSubscribed()
{
	if (!fValid)
		return false;
	RegistryGuard guard;
	LockedRegistry registry(zv_registry);
	return registry.IsLocked() && registry->DR_SubscriberSubscribed(this);
}

// #pragma mark - Storing data

void ZvDataSubscriber::ds_StoreString(const char* string)
{
	delete[] fString;
	fString = nullptr;
	if (string == nullptr)
		return;
	const size_t size = strlen(string) + 1;
	fString = new (std::nothrow) char[size];
	if (fString != nullptr)
		memcpy(fString, string, size);
}

void ZvDataSubscriber::ds_StoreRaw(const void* data, int32 size)
{
	delete[] static_cast<char*>(fRaw);
	fRaw = nullptr;
	fRawSize = 0;
	if (data == nullptr || size <= 0)
		return;
	char* block = new (std::nothrow) char[size];
	if (block == nullptr)
		return;
	memcpy(block, data, size);
	fRaw = block;
	fRawSize = size;
}

void ZvDataSubscriber::ds_StoreMessage(const BMessage* message)
{
	if (message == nullptr) {
		delete fMessage;
		fMessage = nullptr;
		return;
	}
	if (fMessage == nullptr)
		fMessage = new (std::nothrow) BMessage;
	if (fMessage != nullptr && fMessage != message)
		*fMessage = *message;
}

void ZvDataSubscriber::ds_Publish(const Access& access, uint32 what, bool notify)
{
	// Only the locked path publishes: on the direct path the subscriber is
	// either alone or inside its own DS_EventReceived, where it must not
	// start a propagation of its own.
	if (access.Locked() && Propagates(fFlags.load(std::memory_order_relaxed)))
		ds_DoAppUpdate(what, notify);
}

// #pragma mark - Setters

status_t ZvDataSubscriber::DS_SetIntegerData(int64 value, bool notify)
{
	if (!fValid)
		return -1;
	if (ds_InEvent())
		return 0;
	Access access(this);
	if (access.Failed())
		return -1;
	fInteger = value;
	ds_Publish(access, ZV_DS_TOUCHED_INTEGER, notify);
	return 0;
}

status_t ZvDataSubscriber::DS_SetFloatData(double value, bool notify)
{
	if (!fValid)
		return -1;
	if (ds_InEvent())
		return 0;
	Access access(this);
	if (access.Failed())
		return -1;
	fFloat = value;
	ds_Publish(access, ZV_DS_TOUCHED_FLOAT, notify);
	return 0;
}

status_t ZvDataSubscriber::DS_SetStringData(const char* string, bool notify)
{
	if (!fValid || ds_InEvent())
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	// A null string clears the value, and the clearing is published too.
	ds_StoreString(string);
	ds_Publish(access, ZV_DS_TOUCHED_STRING, notify);
	return string != nullptr ? 0 : -1;
}

status_t ZvDataSubscriber::DS_SetRAWData(const void* data, int32 size, bool notify)
{
	if (!fValid || ds_InEvent())
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	ds_StoreRaw(data, size);
	ds_Publish(access, ZV_DS_TOUCHED_RAW, notify);
	return fRaw != nullptr ? 0 : -1;
}

status_t ZvDataSubscriber::DS_SetMessageData(BMessage* message, bool notify)
{
	if (!fValid || ds_InEvent())
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	// A null message changes nothing, but the propagation still runs.
	if (message != nullptr)
		ds_StoreMessage(message);
	ds_Publish(access, ZV_DS_TOUCHED_MESSAGE, notify);
	return message != nullptr ? 0 : -1;
}

status_t ZvDataSubscriber::DS_SendEvent(uint32 what)
{
	if (!fValid || ds_InEvent() || fSemaphore.load(std::memory_order_relaxed) == kNoSemaphore)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	// Flag bits 4-7 (local only) do not apply to explicit events.
	if (access.Locked() && !NeverRegistered(fFlags.load(std::memory_order_relaxed)))
		ds_DoAppUpdate(what, true);
	// The result is -1 on every path; callers rely on nothing else.
	return -1;
}

// #pragma mark - Getters

status_t ZvDataSubscriber::DS_IntegerData(int64* value)
{
	if (!fValid || value == nullptr)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	*value = fInteger;
	return 0;
}

int64 ZvDataSubscriber::DS_IntegerData()
{
	int64 value = 0;
	return DS_IntegerData(&value) == 0 ? value : 0;
}

status_t ZvDataSubscriber::DS_FloatData(double* value)
{
	if (!fValid || value == nullptr)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	*value = fFloat;
	return 0;
}

double ZvDataSubscriber::DS_FloatData()
{
	double value = 0.0;
	return DS_FloatData(&value) == 0 ? value : 0.0;
}

status_t ZvDataSubscriber::DS_StringData(char* buffer, int32 length)
{
	if (!fValid)
		return -1;
	Access access(this);
	if (access.Failed() || fString == nullptr || buffer == nullptr)
		return -1;
	const size_t stringLength = strlen(fString);
	if (length < 0)
		length = static_cast<int32>(stringLength);
	// As strncpy: at most length characters, zeros up to length, then the
	// terminator at buffer[length].
	const size_t copied = stringLength < size_t(length) ? stringLength : size_t(length);
	memcpy(buffer, fString, copied);
	memset(buffer + copied, 0, size_t(length) - copied + 1);
	return 0;
}

status_t ZvDataSubscriber::DS_StringDataSize(int32* size)
{
	if (!fValid)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	// The direct path refuses a null size; the locked path ignores it. Both
	// leave size alone when there is no string.
	if (!access.Locked() && size == nullptr)
		return -1;
	if (size != nullptr && fString != nullptr)
		*size = static_cast<int32>(strlen(fString));
	return 0;
}

int32 ZvDataSubscriber::DS_StringDataSize()
{
	int32 size = 0;
	return DS_StringDataSize(&size) == 0 ? size : 0;
}

status_t ZvDataSubscriber::DS_RAWData(void* buffer, int32 length)
{
	if (!fValid)
		return -1;
	Access access(this);
	if (access.Failed() || fRaw == nullptr || buffer == nullptr)
		return -1;
	if (length < 0)
		length = fRawSize;
	// A length beyond the block gets zeros for the missing bytes: the block
	// is never read past its end.
	const int32 copied = length < fRawSize ? length : fRawSize;
	memcpy(buffer, fRaw, copied);
	memset(static_cast<char*>(buffer) + copied, 0, length - copied);
	return 0;
}

status_t ZvDataSubscriber::DS_RAWDataSize(int32* size)
{
	if (!fValid)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;
	if (!access.Locked() && size == nullptr)
		return -1;
	if (size != nullptr)
		*size = fRawSize;
	return 0;
}

int32 ZvDataSubscriber::DS_RAWDataSize()
{
	int32 size = 0;
	return DS_RAWDataSize(&size) == 0 ? size : 0;
}

status_t ZvDataSubscriber::DS_MessageData(BMessage* message)
{
	if (!fValid)
		return -1;
	Access access(this);
	if (access.Failed() || fMessage == nullptr || message == nullptr)
		return -1;
	if (message != fMessage)
		*message = *fMessage;
	return 0;
}

// #pragma mark - Events

status_t ZvDataSubscriber::DS_SetEventTarget(BHandler* target)
{
	if (!fValid)
		return -1;
	// Propagations in other threads read the target under the semaphore.
	// If it cannot be had the subscriber was unsubscribed meanwhile, and
	// no propagation reaches it any more.
	Access access(this);
	fEventTarget = target;
	return 0;
}

BHandler* ZvDataSubscriber::DS_EventTarget() const
{
	return fValid ? fEventTarget : nullptr;
}

status_t ZvDataSubscriber::DS_SetEventMessage(BMessage* message)
{
	if (!fValid)
		return -1;
	// Locked for the same reason as DS_SetEventTarget.
	Access access(this);
	if (fEventMessage == nullptr) {
		fEventMessage = new (std::nothrow) BMessage;
		if (fEventMessage == nullptr)
			return -1;
	}
	if (message != nullptr) {
		if (message != fEventMessage)
			*fEventMessage = *message;
		fEventMessage->RemoveName(kSourceField);
	}
	// With a null message an existing "Source" stays, and a second one is
	// added.
	fEventMessage->AddPointer(kSourceField, this);
	return 0;
}

status_t ZvDataSubscriber::DS_SetEventMessage(uint32 what)
{
	if (!fValid)
		return -1;
	Access access(this);
	if (fEventMessage == nullptr) {
		fEventMessage = new (std::nothrow) BMessage;
		if (fEventMessage == nullptr)
			return -1;
	}
	fEventMessage->MakeEmpty();
	fEventMessage->what = what;
	fEventMessage->AddPointer(kSourceField, this);
	return 0;
}

BMessage* ZvDataSubscriber::DS_EventMessage() const
{
	return fValid ? fEventMessage : nullptr;
}

// #pragma mark - Propagation

status_t ZvDataSubscriber::ds_DoAppUpdate(uint32 what, bool notify)
{
	// Older subscribers first, nearest first; then the newer ones, nearest
	// first. The chain cannot change meanwhile: changing it needs the
	// semaphore the caller holds.
	const thread_id self = find_thread(nullptr);
	for (ZvDataSubscriber* target = fNext; target != nullptr; target = target->fNext)
		ds_Deliver(target, what, notify, self);
	for (ZvDataSubscriber* target = fPrevious; target != nullptr; target = target->fPrevious)
		ds_Deliver(target, what, notify, self);
	return 0;
}

status_t ZvDataSubscriber::ds_DoAppUpdateSub(ZvDataSubscriber* target, uint32 what, bool notify)
{
	ds_Deliver(target, what, notify, find_thread(nullptr));
	return 0;
}

void ZvDataSubscriber::ds_Deliver(ZvDataSubscriber* target, uint32 what, bool notify,
                                  thread_id self)
{
	if (target == nullptr || !ReceivesUpdates(target->fFlags.load(std::memory_order_relaxed)))
		return;
	ds_CopyData(target, this, what);
	if (!notify)
		return;

	// The target is in event for this thread only while its hook runs, so
	// its own calls from the hook take the direct path (this thread holds
	// the semaphore), and other threads' calls keep waiting. Only holders of
	// the attribute's semaphore write the field, one at a time, and a thread
	// only ever finds its own identifier there after writing it itself, so
	// relaxed accesses suffice: the semaphore orders everything else.
	const thread_id previous = target->fEventThread.load(std::memory_order_relaxed);
	target->fEventThread.store(self, std::memory_order_relaxed);
	target->DS_EventReceived(what);
	target->fEventThread.store(previous, std::memory_order_relaxed);

	if (target->fEventTarget == nullptr || target->fEventMessage == nullptr)
		return;
	BMessenger messenger(target->fEventTarget, nullptr, nullptr);
	if (!messenger.IsValid())
		return;
	BMessage* event = target->fEventMessage;
	event->RemoveName(kTouchedWhatField);
	event->AddInt32(kTouchedWhatField, static_cast<int32>(what));
	if (messenger.IsTargetLocal()) {
		// Posting copies the message; the template stays the target's.
		BLooper* looper = nullptr;
		BHandler* handler = messenger.Target(&looper);
		if (looper != nullptr)
			looper->PostMessage(event, handler, nullptr);
	} else {
		// A remote target is served synchronously, waiting for its reply
		// with the semaphore held.
		BMessage reply;
		messenger.SendMessage(event, &reply, B_INFINITE_TIMEOUT, B_INFINITE_TIMEOUT);
	}
}

status_t ZvDataSubscriber::ds_CopyData(ZvDataSubscriber* destination, ZvDataSubscriber* source,
                                       uint32 what)
{
	// Copying a subscriber onto itself would free the data it copies from.
	if (destination == nullptr || source == nullptr || destination == source)
		return 0;
	if ((what & ZV_DS_TOUCHED_INTEGER) != 0)
		destination->fInteger = source->fInteger;
	if ((what & ZV_DS_TOUCHED_FLOAT) != 0)
		destination->fFloat = source->fFloat;
	if ((what & ZV_DS_TOUCHED_STRING) != 0)
		destination->ds_StoreString(source->fString);
	if ((what & ZV_DS_TOUCHED_RAW) != 0)
		destination->ds_StoreRaw(source->fRaw, source->fRawSize);
	if ((what & ZV_DS_TOUCHED_MESSAGE) != 0)
		destination->ds_StoreMessage(source->fMessage);
	return 0;
}

ZvDataSubscriber& ZvDataSubscriber::operator=(ZvDataSubscriber& other)
{
	ds_CopyData(this, &other, ZV_DS_TOUCHED_ALL);
	return *this;
}

// #pragma mark - Archive

status_t ZvDataSubscriber::DS_Archive(BMessage* archive, uint32 what)
{
	if (!fValid || archive == nullptr)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;

	BMessage* out = archive;
	out->RemoveName(kArchiveName);
	out->AddString(kArchiveName, fName);
	out->RemoveName(kArchiveTouched);
	out->AddInt32(kArchiveTouched, static_cast<int32>(what));
	if ((what & ZV_DS_TOUCHED_INTEGER) != 0) {
		out->RemoveName(kArchiveInteger);
		out->AddInt64(kArchiveInteger, fInteger);
	}
	if ((what & ZV_DS_TOUCHED_FLOAT) != 0) {
		out->RemoveName(kArchiveFloat);
		out->AddDouble(kArchiveFloat, fFloat);
	}
	if ((what & ZV_DS_TOUCHED_STRING) != 0 && fString != nullptr) {
		out->RemoveName(kArchiveString);
		out->AddString(kArchiveString, fString);
	}
	if ((what & ZV_DS_TOUCHED_RAW) != 0 && fRaw != nullptr && fRawSize >= 1) {
		out->RemoveName(kArchiveRaw);
		out->AddData(kArchiveRaw, B_RAW_TYPE, fRaw, fRawSize, true, 1);
	}
	if ((what & ZV_DS_TOUCHED_MESSAGE) != 0 && fMessage != nullptr) {
		out->RemoveName(kArchiveMessage);
		out->AddMessage(kArchiveMessage, fMessage);
	}
	return 0;
}

status_t ZvDataSubscriber::DS_UnArchive(BMessage* archive, bool notify)
{
	if (!fValid || archive == nullptr)
		return -1;
	Access access(this);
	if (access.Failed())
		return -1;

	const BMessage* in = archive;

	uint32 mask = 0;
	int32 touched = 0;
	if (in->FindInt32(kArchiveTouched, &touched) == B_OK)
		mask = static_cast<uint32>(touched);

	int64 integer = 0;
	if (in->FindInt64(kArchiveInteger, &integer) == B_OK) {
		fInteger = integer;
		mask |= ZV_DS_TOUCHED_INTEGER;
	}
	double number = 0.0;
	if (in->FindDouble(kArchiveFloat, &number) == B_OK) {
		fFloat = number;
		mask |= ZV_DS_TOUCHED_FLOAT;
	}
	const char* string = nullptr;
	if (in->FindString(kArchiveString, &string) == B_OK) {
		if (string != nullptr)
			ds_StoreString(string);
		mask |= ZV_DS_TOUCHED_STRING;
	}
	const void* data = nullptr;
	ssize_t size = 0;
	if (in->FindData(kArchiveRaw, B_RAW_TYPE, 0, &data, &size) == B_OK) {
		if (size >= 1 && data != nullptr && static_cast<ssize_t>(static_cast<int32>(size)) == size)
			ds_StoreRaw(data, static_cast<int32>(size));
		mask |= ZV_DS_TOUCHED_RAW;
	}
	if (in->HasMessage(kArchiveMessage, 0)) {
		if (fMessage == nullptr)
			fMessage = new (std::nothrow) BMessage;
		if (fMessage != nullptr && in->FindMessage(kArchiveMessage, fMessage) == B_OK)
			mask |= ZV_DS_TOUCHED_MESSAGE;
	}

	// Unlike the setters, unarchiving propagates on either path: an archive
	// with none of the keys still raises an event with mask 0.
	if (Propagates(fFlags.load(std::memory_order_relaxed)))
		ds_DoAppUpdate(mask, notify);
	return 0;
}
