// ZvList.h: the growable pointer list behind every collection of the library.
//
// ZvList<T> keeps an array of T (always a pointer type) that grows by a step
// when full and shrinks by the step when a removal leaves a step's worth of
// slots unused. The step is recomputed after each growth or shrink as half
// the capacity, never less than the block size given at construction, so
// capacities with step 16 run 16, 32, 48, 72, 108, 162, ... Every growth and
// every shrink copies the array into a fresh one.
//
// Small slot arrays come from the library's per-thread block cache (see
// ZvListStorage), so a list filled on one thread and emptied on another, as
// the items of a posted message are, costs no allocator lock; arrays of 64
// KiB and more that a list frees are kept (up to a bound) for the next list
// that grows that large. items is the list's own: never free or replace it.
//
// Ownership: the list owns its slot array only. It never deletes what the
// entries point to; that is the owner's job. The optional lock, when set, is
// owned by the list and deleted by its destructor (no list of the library
// sets it).
// Thread safety: none. Each owner guards its own list.
#ifndef _ZV_LIST_H
#define _ZV_LIST_H

#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvGeometry.h>

#include <stddef.h>
#include <string.h>
#include <type_traits>

class ZvLocker;

// The allocator of every list's slot array, and the end of a list's optional
// lock; a base of ZvList only, with nothing for clients.
class ZV_EXPORT ZvListStorage
{
protected:
	// An array of bytes bytes, not filled: a list writes a slot before it
	// reads it.
	static void* AllocateSlots(size_t bytes);
	// Frees an array from AllocateSlots(bytes), given the same size.
	static void FreeSlots(void* slots, size_t bytes);
	// Acquires lock, then deletes it.
	static void DeleteLock(ZvLocker* lock);
};

// A growable list of pointers; see the file's description.
template <class T> class ZvList : protected ZvListStorage
{
	static_assert(std::is_pointer<T>::value, "ZvList holds pointers");

public:
	// An empty list that grows by step slots at first (a step below 1 makes
	// a list that stays empty).
	explicit ZvList(int32 step = 16)
	    : count(0), capacity(0), growStep(step), blockSize(step), defaultItem(nullptr),
	      items(nullptr), lock(nullptr)
	{
	}

	// Frees the array; then, when a lock is set, acquires it and deletes it.
	virtual ~ZvList()
	{
		ZvList<T>::MakeEmpty();
		if (lock != nullptr) {
			DeleteLock(lock);
			lock = nullptr;
		}
	}

	//@{
	// Not copyable.
	ZvList(const ZvList&) = delete;
	ZvList& operator=(const ZvList&) = delete;
	//@}

	// Frees the slot array (not the objects); the step is kept.
	virtual void MakeEmpty()
	{
		FreeSlots(items, static_cast<size_t>(capacity) * sizeof(T));
		items = nullptr;
		count = 0;
		capacity = 0;
	}

	// The number of entries.
	int32 CountItems() const { return count; }

	// The entry at index, or defaultItem when index is out of range.
	T ItemAt(int32 index) const
	{
		if (index < 0 || index >= count)
			return defaultItem;
		return items[index];
	}

	// Appends item, growing the array when it is full.
	void AddItem(T item)
	{
		count += 1;
		if (count > capacity) {
			const int32 newCapacity = capacity + growStep;
			if (newCapacity < 1) {
				// Only a list made with a step below 1 gets here: it cannot
				// hold anything and stays empty.
				MakeEmpty();
				return;
			}
			_Resize(newCapacity);
			growStep = MAX(capacity / 2, blockSize);
		}
		items[count - 1] = item;
	}

	// Removes and returns the entry at index; an index out of range returns
	// defaultItem and changes nothing.
	T RemoveItem(int32 index)
	{
		if (index < 0 || index >= count)
			return defaultItem;

		T taken = items[index];
		count -= 1;
		for (int32 i = index; i < count; i++)
			items[i] = items[i + 1];

		const int32 reduced = capacity - growStep;
		if (count <= reduced) {
			if (reduced > 0)
				_Resize(reduced);
			else
				MakeEmpty();
			growStep = MAX(capacity / 2, blockSize);
		}
		return taken;
	}

	int32 count;     // Entries in use.
	int32 capacity;  // Slots in the array.
	int32 growStep;  // Slots the next growth adds (half the capacity, at least blockSize).
	int32 blockSize; // The step the list was made with.
	T defaultItem;   // What ItemAt and RemoveItem give out of range.
	T* items;        // The slot array (null when empty), owned.
	ZvLocker* lock;  // An optional lock, owned; deleted by the destructor.

private:
	// Moves the entries into a fresh array of newCapacity slots.
	void _Resize(int32 newCapacity)
	{
		T* fresh = static_cast<T*>(AllocateSlots(static_cast<size_t>(newCapacity) * sizeof(T)));
		const int32 keep = MIN(newCapacity, capacity);
		// Slots past count may never have been written: copied as bytes.
		if (keep > 0)
			memcpy(static_cast<void*>(fresh), items, static_cast<size_t>(keep) * sizeof(T));
		FreeSlots(items, static_cast<size_t>(capacity) * sizeof(T));
		items = fresh;
		capacity = newCapacity;
	}
};

#endif // _ZV_LIST_H
