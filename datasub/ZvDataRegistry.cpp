// ZvDataRegistry.cpp: the process-wide directory of data attributes.
#include <ZvDataRegistry.h>

#include <ZvDataSubscriber.h>
#include <ZvSemaphore.h>

#include "DataFlags.h"
#include "RegistryGuard.h"

#include <pthread.h>
#include <string.h>

#include <new>

using namespace zv_datasub;

ZvDataRegistry* zv_registry = NULL;

namespace {

// Statically initialised, so the guard exists before any constructor runs
// and is never destroyed at exit.
pthread_mutex_t sRegistryGuard = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

const int32 kEntryListStep = 20;

} // namespace

namespace zv_datasub {

void LockRegistryGuard()
{
	pthread_mutex_lock(&sRegistryGuard);
}

void UnlockRegistryGuard()
{
	pthread_mutex_unlock(&sRegistryGuard);
}

} // namespace zv_datasub

ZvDataRegistry::ZvDataRegistry() : fEntries(kEntryListStep), fLockDepth(0) {}

ZvDataRegistry::~ZvDataRegistry()
{
	// The last DS_UnSubscribe deletes the registry while it holds the lock,
	// possibly several levels deep (DR_UnSubscribeAllExceptServer called
	// under DR_Lock). Every level also holds the guard once; both are given
	// back here, since no DR_Unlock can follow. Nobody waits on fLock
	// itself: every DR_Lock queues on the guard first.
	if (fLock.IsLocked()) {
		while (fLockDepth > 0) {
			fLockDepth--;
			fLock.Unlock();
			UnlockRegistryGuard();
		}
	}
}

bool ZvDataRegistry::DR_Lock()
{
	LockRegistryGuard();
	if (!fLock.Lock()) {
		UnlockRegistryGuard();
		return false;
	}
	fLockDepth++;
	return true;
}

void ZvDataRegistry::DR_Unlock()
{
	if (!fLock.IsLocked())
		return;
	fLockDepth--;
	fLock.Unlock();
	UnlockRegistryGuard();
}

zv_data_registry_entry* ZvDataRegistry::dr_FindEntry(const char* name)
{
	if (name == NULL)
		return NULL;
	const int32 count = fEntries.CountItems();
	for (int32 i = 0; i < count; i++) {
		zv_data_registry_entry* entry = fEntries.ItemAt(i);
		if (entry != NULL && strcmp(entry->name, name) == 0)
			return entry;
	}
	return NULL;
}

status_t ZvDataRegistry::DR_Subscribe(ZvDataSubscriber* subscriber, bool notify)
{
	if (subscriber == NULL)
		return -1;
	const uint32 flags = subscriber->fFlags.load(std::memory_order_relaxed);
	if (NeverRegistered(flags))
		return -1;
	// A subscriber that has no name, or that is already in a chain, would
	// corrupt the chains (linking it twice makes a cycle).
	if (!subscriber->ds_HasName() || subscriber->fSemaphore.load(std::memory_order_relaxed) != 0)
		return -1;

	zv_data_registry_entry* entry = dr_FindEntry(subscriber->fName);
	if (entry == NULL) {
		entry = new (std::nothrow) zv_data_registry_entry;
		if (entry == NULL)
			return -1;
		const uint32 sem = ZvSemaphore::Create(1, subscriber->fName);
		if (sem == 0) {
			delete entry;
			return -1;
		}
		memset(entry->name, 0, sizeof(entry->name));
		strncpy(entry->name, subscriber->fName, sizeof(entry->name) - 1);
		entry->firstSubscriber = subscriber;
		entry->semaphore = sem;
		fEntries.AddItem(entry);
		subscriber->fPrevious = NULL;
		subscriber->fNext = NULL;
		subscriber->fSemaphore.store(sem, std::memory_order_relaxed);
		// The first subscriber of an attribute has nobody to exchange data
		// with, whatever its flags.
		subscriber->DS_Subscribed(true);
		return 0;
	}

	// The semaphore keeps propagations in progress on this attribute from
	// seeing the chain while it changes, and serialises the initial data
	// exchange with them.
	if (ZvSemaphore::Acquire(entry->semaphore, -1) != 1)
		return -1;

	const bool joinsExchange = ReceivesUpdates(flags);
	const uint32 join = flags & kJoinMask;
	if (joinsExchange && join == 0) {
		ZvDataSubscriber* source = entry->firstSubscriber;
		while (source != NULL && !CanBeSource(source->fFlags.load(std::memory_order_relaxed)))
			source = source->fNext;
		if (source != NULL)
			source->ds_DoAppUpdateSub(subscriber, kTouchedAll, notify);
	}

	subscriber->fSemaphore.store(entry->semaphore, std::memory_order_relaxed);
	subscriber->fNext = entry->firstSubscriber;
	if (entry->firstSubscriber != NULL)
		entry->firstSubscriber->fPrevious = subscriber;
	entry->firstSubscriber = subscriber;
	subscriber->fPrevious = NULL;

	if (joinsExchange && join == kJoinPush)
		subscriber->ds_DoAppUpdate(kTouchedAll, notify);

	ZvSemaphore::Release(entry->semaphore);
	subscriber->DS_Subscribed(true);
	return 0;
}

status_t ZvDataRegistry::DR_UnSubscribe(ZvDataSubscriber* subscriber)
{
	if (subscriber == NULL)
		return -1;
	const uint32 sem = subscriber->fSemaphore.load(std::memory_order_relaxed);
	if (NeverRegistered(subscriber->fFlags.load(std::memory_order_relaxed)) || sem == 0)
		return -1;
	if (ZvSemaphore::Acquire(sem, -1) != 1)
		return -1;

	zv_data_registry_entry* entry =
	    subscriber->ds_HasName() ? dr_FindEntry(subscriber->fName) : NULL;

	if (subscriber->fNext != NULL || subscriber->fPrevious != NULL) {
		if (entry != NULL && entry->firstSubscriber == subscriber)
			entry->firstSubscriber = subscriber->fNext;
		if (subscriber->fNext != NULL)
			subscriber->fNext->fPrevious = subscriber->fPrevious;
		if (subscriber->fPrevious != NULL)
			subscriber->fPrevious->fNext = subscriber->fNext;
		subscriber->fNext = NULL;
		subscriber->fPrevious = NULL;
		subscriber->fSemaphore.store(0, std::memory_order_relaxed);
		ZvSemaphore::Release(sem);
		subscriber->DS_Subscribed(false);
		return 0;
	}

	// The attribute's last subscriber. Without its entry the semaphore stays
	// held: the attribute is in a state nobody can repair, and keeping it
	// locked stops any further use of it.
	if (entry == NULL)
		return -1;

	const int32 count = fEntries.CountItems();
	for (int32 i = 0; i < count; i++) {
		if (fEntries.ItemAt(i) == entry) {
			fEntries.RemoveItem(i);
			break;
		}
	}
	// Deleting the held semaphore wakes any late waiter with a failure.
	ZvSemaphore::Delete(sem);
	subscriber->fSemaphore.store(0, std::memory_order_relaxed);
	delete entry;
	subscriber->DS_Subscribed(false);
	return 0;
}

bool ZvDataRegistry::DR_SubscriberSubscribed(ZvDataSubscriber* subscriber)
{
	if (subscriber == NULL || NeverRegistered(subscriber->fFlags.load(std::memory_order_relaxed)) ||
	    !subscriber->ds_HasName())
		return false;

	// Unlike the other lookups, this one gives up at the first empty entry.
	zv_data_registry_entry* entry = NULL;
	const int32 count = fEntries.CountItems();
	for (int32 i = 0; i < count; i++) {
		zv_data_registry_entry* candidate = fEntries.ItemAt(i);
		if (candidate == NULL)
			return false;
		if (strcmp(candidate->name, subscriber->fName) == 0) {
			entry = candidate;
			break;
		}
	}
	if (entry == NULL)
		return false;

	for (ZvDataSubscriber* member = entry->firstSubscriber; member != NULL;
	     member = member->fNext) {
		if (member == subscriber)
			return true;
	}
	return false;
}

status_t ZvDataRegistry::DR_UnSubscribeAllExceptServer(const char* name)
{
	zv_data_registry_entry* entry = dr_FindEntry(name);
	if (entry == NULL)
		return 0;

	// Only the saved links are used once the walk has started: the last
	// removal deletes the entry, and may delete this registry as well.
	ZvDataSubscriber* subscriber = entry->firstSubscriber;
	while (subscriber != NULL) {
		ZvDataSubscriber* next = subscriber->fNext;
		if ((subscriber->fFlags.load(std::memory_order_relaxed) & kServerMask) == 0)
			subscriber->DS_UnSubscribe();
		subscriber = next;
	}
	return 0;
}

int32 ZvDataRegistry::DR_CountAttributes()
{
	return fEntries.CountItems();
}

status_t ZvDataRegistry::DR_AttributeAt(int32 index, char* buffer)
{
	if (index < 0 || index >= fEntries.CountItems() || buffer == NULL)
		return -1;
	const zv_data_registry_entry* entry = fEntries.ItemAt(index);
	if (entry == NULL)
		return -1;
	strcpy(buffer, entry->name);
	return 0;
}
