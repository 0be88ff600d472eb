// ZvDataSubscriber.h: one endpoint of a named, process-wide data attribute.
//
// A ZvDataSubscriber holds one value of each of five kinds (a 64-bit integer,
// a double, a string, a block of raw bytes and a platform BMessage) and
// subscribes under its attribute name (at most 31 characters) to the global
// registry, zv_registry (ZvDataRegistry.h). Setting a value on one
// subscriber copies it into every other subscriber of the same attribute
// and, on request, tells each receiver through the virtual DS_EventReceived
// and through an event message posted to a platform BHandler.
//
// Results: 0 on success, -1 on every failure (DS_SendEvent always gives -1).
//
// Touched mask (the "what" of setters, events and archives): the
// ZV_DS_TOUCHED_* bits below, ZV_DS_TOUCHED_ALL for all five kinds. It is
// also the event code handed to DS_EventReceived and put into event
// messages as "touched_what".
//
// Subscription flags: one value from each group below, or-ed together (0 is
// the usual subscriber: receives, can be a source, propagates, pulls).
//   ZV_DS_MODE_MASK: ZV_DS_MODE_EXCHANGE and ZV_DS_MODE_RECEIVE_ONLY receive
//     updates; ZV_DS_MODE_SOURCE_ONLY and ZV_DS_MODE_ISOLATED (any larger
//     mode too) never do. EXCHANGE and SOURCE_ONLY can give a newcomer its
//     initial data.
//   ZV_DS_LOCAL_ONLY_MASK (ZV_DS_LOCAL_ONLY): setters and DS_UnArchive store
//     locally, without propagating.
//   ZV_DS_NEVER_REGISTERED_MASK (ZV_DS_NEVER_REGISTERED): never registered,
//     never propagates.
//   ZV_DS_JOIN_MASK, for the receiving modes: ZV_DS_JOIN_PULL takes the
//     attribute's data on subscribing, ZV_DS_JOIN_PUSH gives its own data to
//     the others instead, ZV_DS_JOIN_NONE (any other value) neither.
//   ZV_DS_SERVER_MASK (ZV_DS_SERVER): survives
//     DR_UnSubscribeAllExceptServer.
//
// Ownership: a subscriber owns its string, raw block, message, event message
// and name buffer; the event target handler is not owned. Pointers handed in
// are copied, never kept (except the event target).
//
// Thread safety: any thread may call any operation on any subscriber. All
// subscribers of one attribute share one semaphore (count 1, not recursive)
// that serialises their data; a change propagates to the other subscribers,
// their DS_EventReceived calls and event message deliveries all run in the
// changing thread while that semaphore is held. Inside DS_EventReceived the
// receiver may read its own data but must not change it, and must not
// subscribe, unsubscribe or set data on another subscriber of the same
// attribute (the thread would wait on itself). Lock order is the registry
// first, then an attribute's semaphore: a DS_EventReceived that calls a
// registry operation (DS_Subscribe, DS_UnSubscribe, DS_IsSubscribed,
// DS_SetAttributeName) can deadlock with another thread that is subscribing
// to or unsubscribing from the attribute being propagated. "In event" holds
// only for the propagating thread: other threads' calls on a subscriber that
// is in event wait for the propagation to end. Renaming a subscriber
// (DS_SetAttributeName) must not race with other use of the same object.
#ifndef _ZV_DATA_SUBSCRIBER_H
#define _ZV_DATA_SUBSCRIBER_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvExport.h>

#include <atomic>

class BHandler;
class BMessage;
class ZvDataRegistry;

// Kinds of data in a touched mask.
constexpr uint32 ZV_DS_TOUCHED_INTEGER = 1;
constexpr uint32 ZV_DS_TOUCHED_FLOAT = 2;
constexpr uint32 ZV_DS_TOUCHED_STRING = 4;
constexpr uint32 ZV_DS_TOUCHED_RAW = 8;
constexpr uint32 ZV_DS_TOUCHED_MESSAGE = 16;
constexpr uint32 ZV_DS_TOUCHED_ALL = 255;

// Groups of the subscription flags and their values.
constexpr uint32 ZV_DS_MODE_MASK = 0x0000000F;
constexpr uint32 ZV_DS_MODE_EXCHANGE = 0;
constexpr uint32 ZV_DS_MODE_RECEIVE_ONLY = 1;
constexpr uint32 ZV_DS_MODE_SOURCE_ONLY = 2;
constexpr uint32 ZV_DS_MODE_ISOLATED = 3;
constexpr uint32 ZV_DS_LOCAL_ONLY_MASK = 0x000000F0;
constexpr uint32 ZV_DS_LOCAL_ONLY = 0x00000010;
constexpr uint32 ZV_DS_NEVER_REGISTERED_MASK = 0x00000F00;
constexpr uint32 ZV_DS_NEVER_REGISTERED = 0x00000100;
constexpr uint32 ZV_DS_JOIN_MASK = 0x0000F000;
constexpr uint32 ZV_DS_JOIN_PULL = 0;
constexpr uint32 ZV_DS_JOIN_PUSH = 0x00001000;
constexpr uint32 ZV_DS_JOIN_NONE = 0x00002000;
constexpr uint32 ZV_DS_SERVER_MASK = 0x000F0000;
constexpr uint32 ZV_DS_SERVER = 0x00010000;

class ZV_EXPORT ZvDataSubscriber
{
public:
	// Copies at most 31 characters of name and subscribes with notify true.
	// A null or empty name leaves the subscriber not valid.
	//
	// Derived classes: the subscription happens here, before a derived
	// constructor runs, so an initial pull reaches the object as a plain
	// ZvDataSubscriber, and propagations from other threads can reach it
	// while the derived part is being built. Construct derived subscribers
	// of an attribute that other threads are changing only when their hooks
	// can cope with that, and call DS_UnSubscribe first in a derived
	// destructor, while the derived hooks still exist.
	ZvDataSubscriber(const char* name, uint32 flags);
	// Unsubscribes (DS_Subscribed(false) then reaches this class only, as
	// the derived part is gone) and frees what the subscriber owns.
	virtual ~ZvDataSubscriber();

	ZvDataSubscriber(const ZvDataSubscriber&) = delete;

	// Called after each propagation that reaches this subscriber with
	// notify true; empty by default.
	virtual void DS_EventReceived(uint32 what);
	// Called by the registry after each successful subscription (true) and
	// unsubscription (false); empty by default.
	virtual void DS_Subscribed(bool subscribed);

	// The name buffer; null when not valid.
	const char* DS_AttributeName();
	// Renames an unsubscribed subscriber; needs an existing registry.
	status_t DS_SetAttributeName(const char* name);
	status_t DS_Subscribe(uint32 flags, bool notify);
	status_t DS_UnSubscribe();
	bool DS_IsSubscribed();

	status_t DS_SetIntegerData(int64 value, bool notify);
	status_t DS_IntegerData(int64* value);
	int64 DS_IntegerData();
	status_t DS_SetFloatData(double value, bool notify);
	status_t DS_FloatData(double* value);
	double DS_FloatData();
	status_t DS_SetStringData(const char* string, bool notify);
	// Copies at most length characters (the whole string when length is
	// negative) and a terminator: buffer needs length + 1 bytes.
	status_t DS_StringData(char* buffer, int32 length);
	status_t DS_StringDataSize(int32* size);
	int32 DS_StringDataSize();
	status_t DS_SetRAWData(const void* data, int32 size, bool notify);
	// Writes length bytes (the stored size when length is negative): the
	// block, then zeros past its end.
	status_t DS_RAWData(void* buffer, int32 length);
	status_t DS_RAWDataSize(int32* size);
	int32 DS_RAWDataSize();
	status_t DS_SetMessageData(BMessage* message, bool notify);
	status_t DS_MessageData(BMessage* message);
	// Propagates the kinds named in what to every receiving subscriber and
	// notifies them; always returns -1.
	status_t DS_SendEvent(uint32 what);

	status_t DS_SetEventTarget(BHandler* target);
	BHandler* DS_EventTarget() const;
	status_t DS_SetEventMessage(BMessage* message);
	status_t DS_SetEventMessage(uint32 what);
	// The owned event message; the caller must not delete it.
	BMessage* DS_EventMessage() const;

	status_t DS_Archive(BMessage* archive, uint32 what);
	status_t DS_UnArchive(BMessage* archive, bool notify);

	// Copies all five kinds of data, with no lock and no propagation.
	ZvDataSubscriber& operator=(ZvDataSubscriber& other);

	// Propagation internals, public because the library's own interface
	// lists them; the registry calls them, clients have no need to. The
	// caller holds the attribute's semaphore. All return 0.
	status_t ds_DoAppUpdate(uint32 what, bool notify);
	status_t ds_DoAppUpdateSub(ZvDataSubscriber* target, uint32 what, bool notify);
	status_t ds_CopyData(ZvDataSubscriber* destination, ZvDataSubscriber* source, uint32 what);

private:
	friend class ZvDataRegistry;

	class Access;

	bool ds_InEvent() const;
	bool ds_HasName() const;
	void ds_StoreString(const char* string);
	void ds_StoreRaw(const void* data, int32 size);
	void ds_StoreMessage(const BMessage* message);
	void ds_Publish(const Access& access, uint32 what, bool notify);
	// ds_DoAppUpdateSub for a propagating thread that knows its identifier.
	void ds_Deliver(ZvDataSubscriber* target, uint32 what, bool notify, thread_id self);

	int64 fInteger;
	double fFloat;
	char* fString;
	void* fRaw;
	int32 fRawSize;
	BMessage* fMessage;
	bool fValid;
	// The thread running this subscriber's DS_EventReceived during a
	// propagation, -1 otherwise. "In event" holds only for that thread: the
	// calls it makes from inside DS_EventReceived take the direct path,
	// while any other thread keeps using the semaphore and so waits for the
	// propagation to end. It is atomic because those other threads read it
	// before they have the semaphore.
	std::atomic<thread_id> fEventThread;
	// Written under the registry lock and the attribute's semaphore, read
	// without them by this subscriber's own operations to pick their path.
	std::atomic<uint32> fSemaphore;
	char* fName;
	BHandler* fEventTarget;
	BMessage* fEventMessage;
	// Written by DS_Subscribe, read by propagations in other threads.
	std::atomic<uint32> fFlags;
	ZvDataSubscriber* fNext;
	ZvDataSubscriber* fPrevious;
};

#endif // _ZV_DATA_SUBSCRIBER_H
