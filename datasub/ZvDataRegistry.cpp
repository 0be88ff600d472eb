// ZvDataRegistry.cpp: the process-wide directory of data attributes.
#include <ZvDataRegistry.h>

#include <ZvDataSubscriber.h>
#include <ZvSemaphore.h>

#include "DataFlags.h"
#include "RegistryGuard.h"
#include "base/internal/Checks.h"
#include "base/internal/Semaphores.h"

#include <pthread.h>
#include <string.h>

#include <new>
#include <string>
#include <unordered_map>
#include <vector>

using namespace zvkit::internal;

ZvDataRegistry* zv_registry = nullptr;

namespace {

// Statically initialised, so the guard exists before any constructor runs
// and is never destroyed at exit.
pthread_mutex_t sRegistryGuard = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

const int32 kEntryListStep = 20;

} // namespace

namespace zvkit::internal {

void LockRegistryGuard()
{
	pthread_mutex_lock(&sRegistryGuard);
}

void UnlockRegistryGuard()
{
	pthread_mutex_unlock(&sRegistryGuard);
}

// The registry's entries by name. Names are cut to 31 characters when an
// entry is made, so two entries may share one (their subscribers' longer
// names differed after the cut): each name keeps its entries in list order,
// and a lookup takes the first, as a walk of the list would.
class RegistryNameIndex
{
public:
	zv_data_registry_entry* Find(const char* name) const
	{
		// No entry holds a longer name, so none could match.
		const size_t length = strnlen(name, sizeof(zv_data_registry_entry::name));
		if (length >= sizeof(zv_data_registry_entry::name))
			return nullptr;
		const auto found = fEntries.find(std::string(name, length));
		return found == fEntries.end() ? nullptr : found->second.front();
	}

	void Add(zv_data_registry_entry* entry) { fEntries[entry->name].push_back(entry); }

	void Remove(zv_data_registry_entry* entry)
	{
		const auto found = fEntries.find(entry->name);
		if (found == fEntries.end())
			return;
		std::vector<zv_data_registry_entry*>& entries = found->second;
		for (size_t i = 0; i < entries.size(); i++) {
			if (entries[i] == entry) {
				entries.erase(entries.begin() + static_cast<ptrdiff_t>(i));
				break;
			}
		}
		if (entries.empty())
			fEntries.erase(found);
	}

private:
	std::unordered_map<std::string, std::vector<zv_data_registry_entry*>> fEntries;
};

} // namespace zvkit::internal

ZvDataRegistry::ZvDataRegistry()
    : fEntries(kEntryListStep), fLockDepth(0), fIndex(new RegistryNameIndex)
{
}

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
	delete fIndex;
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
	// The list never holds an empty entry, so the first entry of the name
	// in the index is the one a walk of the list would meet first.
	if (name == nullptr)
		return nullptr;
	return fIndex->Find(name);
}

void ZvDataRegistry::dr_AddEntry(zv_data_registry_entry* entry)
{
	fEntries.AddItem(entry);
	fIndex->Add(entry);
}

void ZvDataRegistry::dr_RemoveEntry(zv_data_registry_entry* entry)
{
	// The newest and the oldest attributes are the likeliest to go: look
	// from both ends at once (an entry is in the list once).
	zv_data_registry_entry* const* slots = fEntries.items;
	for (int32 front = 0, back = fEntries.CountItems() - 1; front <= back; front++, back--) {
		if (slots[back] == entry) {
			fEntries.RemoveItem(back);
			break;
		}
		if (slots[front] == entry) {
			fEntries.RemoveItem(front);
			break;
		}
	}
	fIndex->Remove(entry);
}

status_t ZvDataRegistry::DR_Subscribe(ZvDataSubscriber* subscriber, bool notify)
{
	if (subscriber == nullptr)
		return -1;
	const uint32 flags = subscriber->fFlags.load(std::memory_order_relaxed);
	if (NeverRegistered(flags))
		return -1;
	// A subscriber that has no name, or that is already in a chain, would
	// corrupt the chains (linking it twice makes a cycle).
	if (!subscriber->ds_HasName() ||
	    subscriber->fSemaphore.load(std::memory_order_relaxed) != kNoSemaphore)
		return -1;

	zv_data_registry_entry* entry = dr_FindEntry(subscriber->fName);
	if (entry == nullptr) {
		entry = new (std::nothrow) zv_data_registry_entry;
		if (entry == nullptr)
			return -1;
		const uint32 sem = ZvSemaphore::Create(1, subscriber->fName);
		if (sem == kNoSemaphore) {
			delete entry;
			return -1;
		}
		memset(entry->name, 0, sizeof(entry->name));
		strncpy(entry->name, subscriber->fName, sizeof(entry->name) - 1);
		entry->firstSubscriber = subscriber;
		entry->semaphore = sem;
		dr_AddEntry(entry);
		subscriber->fPrevious = nullptr;
		subscriber->fNext = nullptr;
		subscriber->fSemaphore.store(sem, std::memory_order_relaxed);
		// The first subscriber of an attribute has nobody to exchange data
		// with, whatever its flags.
		subscriber->DS_Subscribed(true);
		return 0;
	}

	// The semaphore keeps propagations in progress on this attribute from
	// seeing the chain while it changes, and serialises the initial data
	// exchange with them.
	if (zvkit::internal::ChecksOn())
		dr_CheckSelfWait(entry, "ZvDataSubscriber::DS_Subscribe");
	if (AcquireSemaphore(entry->semaphore, -1) != WaitResult::kAcquired)
		return -1;

	const bool joinsExchange = ReceivesUpdates(flags);
	const uint32 join = flags & ZV_DS_JOIN_MASK;
	if (joinsExchange && join == 0) {
		ZvDataSubscriber* source = entry->firstSubscriber;
		while (source != nullptr && !CanBeSource(source->fFlags.load(std::memory_order_relaxed)))
			source = source->fNext;
		if (source != nullptr)
			source->ds_DoAppUpdateSub(subscriber, ZV_DS_TOUCHED_ALL, notify);
	}

	subscriber->fSemaphore.store(entry->semaphore, std::memory_order_relaxed);
	subscriber->fNext = entry->firstSubscriber;
	if (entry->firstSubscriber != nullptr)
		entry->firstSubscriber->fPrevious = subscriber;
	entry->firstSubscriber = subscriber;
	subscriber->fPrevious = nullptr;

	if (joinsExchange && join == ZV_DS_JOIN_PUSH)
		subscriber->ds_DoAppUpdate(ZV_DS_TOUCHED_ALL, notify);

	ZvSemaphore::Release(entry->semaphore);
	subscriber->DS_Subscribed(true);
	return 0;
}

void ZvDataRegistry::dr_CheckSelfWait(zv_data_registry_entry* entry, const char* member)
{
	// The calling thread holds the attribute's semaphore when it runs the
	// DS_EventReceived of one of its subscribers: the chain's shape cannot
	// change meanwhile (that needs the registry lock, held here, too).
	if (entry == nullptr)
		return;
	const thread_id self = find_thread(nullptr);
	for (ZvDataSubscriber* s = entry->firstSubscriber; s != nullptr; s = s->fNext) {
		if (s->fEventThread.load(std::memory_order_relaxed) == self) {
			zvkit::internal::CheckReport(
			    member,
			    "called from DS_EventReceived of a subscriber of \"%s\" for the same "
			    "attribute; it waits for the attribute's semaphore, which this thread holds, "
			    "for ever",
			    entry->name);
			return;
		}
	}
}

status_t ZvDataRegistry::DR_UnSubscribe(ZvDataSubscriber* subscriber)
{
	if (subscriber == nullptr)
		return -1;
	const uint32 sem = subscriber->fSemaphore.load(std::memory_order_relaxed);
	if (NeverRegistered(subscriber->fFlags.load(std::memory_order_relaxed)) || sem == kNoSemaphore)
		return -1;
	if (zvkit::internal::ChecksOn() && subscriber->ds_HasName())
		dr_CheckSelfWait(dr_FindEntry(subscriber->fName), "ZvDataSubscriber::DS_UnSubscribe");
	if (AcquireSemaphore(sem, -1) != WaitResult::kAcquired)
		return -1;

	zv_data_registry_entry* entry =
	    subscriber->ds_HasName() ? dr_FindEntry(subscriber->fName) : nullptr;

	if (subscriber->fNext != nullptr || subscriber->fPrevious != nullptr) {
		if (entry != nullptr && entry->firstSubscriber == subscriber)
			entry->firstSubscriber = subscriber->fNext;
		if (subscriber->fNext != nullptr)
			subscriber->fNext->fPrevious = subscriber->fPrevious;
		if (subscriber->fPrevious != nullptr)
			subscriber->fPrevious->fNext = subscriber->fNext;
		subscriber->fNext = nullptr;
		subscriber->fPrevious = nullptr;
		subscriber->fSemaphore.store(kNoSemaphore, std::memory_order_relaxed);
		ZvSemaphore::Release(sem);
		subscriber->DS_Subscribed(false);
		return 0;
	}

	// The attribute's last subscriber. Without its entry the semaphore stays
	// held: the attribute is in a state nobody can repair, and keeping it
	// locked stops any further use of it.
	if (entry == nullptr)
		return -1;

	dr_RemoveEntry(entry);
	// Deleting the held semaphore wakes any late waiter with a failure.
	ZvSemaphore::Delete(sem);
	subscriber->fSemaphore.store(kNoSemaphore, std::memory_order_relaxed);
	delete entry;
	subscriber->DS_Subscribed(false);
	return 0;
}

bool ZvDataRegistry::DR_SubscriberSubscribed(ZvDataSubscriber* subscriber)
{
	if (subscriber == nullptr ||
	    NeverRegistered(subscriber->fFlags.load(std::memory_order_relaxed)) ||
	    !subscriber->ds_HasName())
		return false;

	// A walk of the list would give up at the first empty entry; the list
	// never holds one, so the index answers as the walk would.
	zv_data_registry_entry* entry = dr_FindEntry(subscriber->fName);
	if (entry == nullptr)
		return false;

	for (ZvDataSubscriber* member = entry->firstSubscriber; member != nullptr;
	     member = member->fNext) {
		if (member == subscriber)
			return true;
	}
	return false;
}

status_t ZvDataRegistry::DR_UnSubscribeAllExceptServer(const char* name)
{
	zv_data_registry_entry* entry = dr_FindEntry(name);
	if (entry == nullptr)
		return 0;

	// Only the saved links are used once the walk has started: the last
	// removal deletes the entry, and may delete this registry as well.
	ZvDataSubscriber* subscriber = entry->firstSubscriber;
	while (subscriber != nullptr) {
		ZvDataSubscriber* next = subscriber->fNext;
		if ((subscriber->fFlags.load(std::memory_order_relaxed) & ZV_DS_SERVER_MASK) == 0)
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
	if (index < 0 || index >= fEntries.CountItems() || buffer == nullptr)
		return -1;
	const zv_data_registry_entry* entry = fEntries.ItemAt(index);
	if (entry == nullptr)
		return -1;
	strcpy(buffer, entry->name);
	return 0;
}
