// ZvDataRegistry.h: the process-wide directory of named data attributes.
//
// For every attribute name that at least one ZvDataSubscriber has
// subscribed to, the registry keeps one zv_data_registry_entry: the name, the
// head of the chain of the attribute's subscribers (the most recent one) and
// the attribute's semaphore (count 1, shared by all its subscribers). The
// chain itself runs through the subscribers' next and previous links.
//
// The registry is reached through the global zv_registry, which is null at
// load time, is created by the first DS_Subscribe in the process and is
// deleted by the DS_UnSubscribe that removes its last attribute. Its clients
// are the subscribers.
//
// Results: 0 on success, -1 on failure (bool operations give false).
//
// Ownership: the registry owns its entries and their semaphores; it never
// owns subscribers.
//
// Thread safety: a caller takes DR_Lock, calls one or more DR_ operations
// and releases with DR_Unlock; the DR_ operations take no registry lock
// themselves. The registry lock is recursive for the thread holding it. Lock
// order: registry lock first, then an attribute's semaphore. Every library
// path that reads zv_registry and locks it also holds a process-wide guard,
// so a registry cannot be deleted between being found and being locked.
#ifndef _ZV_DATA_REGISTRY_H
#define _ZV_DATA_REGISTRY_H

#include <Locker.h>
#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvList.h>

class ZvDataSubscriber;

namespace zvkit::internal {
class RegistryNameIndex;
}

// One attribute of the registry.
struct zv_data_registry_entry
{
	char name[32];                     // The attribute's name, zero-terminated.
	ZvDataSubscriber* firstSubscriber; // Head of its chain (the newest).
	uint32 semaphore;                  // Serialises the attribute's data.
};

// The process-wide table of attributes; see the file's description.
class ZV_EXPORT ZvDataRegistry
{
public:
	// An empty registry with its own recursive lock.
	ZvDataRegistry();
	// Releases any lock levels the calling thread still holds (the last
	// DS_UnSubscribe deletes the registry while holding it), then destroys
	// the lock and the entry list. Entries are never left at this point.
	virtual ~ZvDataRegistry();

	//@{
	// Not copyable.
	ZvDataRegistry(const ZvDataRegistry&) = delete;
	ZvDataRegistry& operator=(const ZvDataRegistry&) = delete;
	//@}

	// Takes the registry's recursive lock; false when it is gone.
	bool DR_Lock();
	// Gives back one level of the lock.
	void DR_Unlock();

	// Adds subscriber at the head of its attribute's chain, creating the
	// attribute on first use; runs the initial pull or push (with events
	// when notify is true).
	status_t DR_Subscribe(ZvDataSubscriber* subscriber, bool notify);
	// Removes subscriber from its chain; the last subscriber of an
	// attribute removes the attribute and deletes its semaphore.
	status_t DR_UnSubscribe(ZvDataSubscriber* subscriber);
	// Whether subscriber is in one of the registry's chains.
	bool DR_SubscriberSubscribed(ZvDataSubscriber* subscriber);
	// Unsubscribes every subscriber of name that is not a server. May
	// delete the registry itself (and with it the lock levels the calling
	// thread held): check zv_registry before calling DR_Unlock.
	status_t DR_UnSubscribeAllExceptServer(const char* name);
	// The number of attributes.
	int32 DR_CountAttributes();
	// Copies the name of attribute index into buffer (32 bytes).
	status_t DR_AttributeAt(int32 index, char* buffer);

private:
	zv_data_registry_entry* dr_FindEntry(const char* name);
	// Checked mode: reports, as member, a call that is about to wait for
	// entry's semaphore from a DS_EventReceived of the same attribute.
	void dr_CheckSelfWait(zv_data_registry_entry* entry, const char* member);

	// Appends entry to the list, or removes it, keeping the name index in
	// step.
	void dr_AddEntry(zv_data_registry_entry* entry);
	void dr_RemoveEntry(zv_data_registry_entry* entry);

	ZvList<zv_data_registry_entry*> fEntries;
	BLocker fLock;
	// Lock levels held by the owning thread; touched only while holding
	// fLock.
	int32 fLockDepth;
	// Entries by name, so that finding an attribute costs the same however
	// many there are; guarded by fLock like the list.
	zvkit::internal::RegistryNameIndex* fIndex;
};

// The registry, created by the first subscription and deleted with its last
// attribute; null while there is none.
extern ZV_EXPORT ZvDataRegistry* zv_registry;

#endif // _ZV_DATA_REGISTRY_H
