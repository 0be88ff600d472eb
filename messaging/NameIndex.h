// NameIndex.h: a hash index from field names to a message's items.
//
// A message keeps its items in one list in order of addition, and a field is
// found by walking that list. For a message of many items the walk dominates
// every lookup, so once a message holds kNameIndexThreshold items, lookups
// build this index: one entry per distinct name, holding that name's items
// in list order. The n-th item of a name is then one hash probe and one
// array access, and the n-th item of a name and type the same whenever all
// items of the name share one type (the common case); a name whose items mix
// types is walked over its own items only.
//
// The index mirrors the list and never owns an item. The message updates it
// on every change it makes to its list; Count() tells the message whether the
// list was changed behind its back (a derived class may reach the list
// directly), in which case the index is thrown away and made again.
//
// Names are compared whole and case-sensitively, as the list walk compares
// them. Items never hold names longer than 63 characters, so a longer name
// finds nothing without a probe.
//
// Thread safety: none; the message publishes a finished index to concurrent
// readers (see ZvMessage::_Index) and changes it only while it is the sole
// user of the message.
#ifndef _ZV_NAME_INDEX_H
#define _ZV_NAME_INDEX_H

#include <SupportDefs.h>

#include <ZvList.h>
#include <ZvTypeCodes.h>

#include <vector>

class ZvMessageItem;

namespace zvkit::internal {

// Messages of fewer items than this are searched by walking their list: up
// to here the walk is as fast as a hash probe, and small messages carry no
// index at all.
constexpr int32 kNameIndexThreshold = 24;

class NameIndex
{
public:
	// The items of one name, in list order, as a lookup hands them out. The
	// pointers stay valid until the index changes.
	struct Names
	{
		ZvMessageItem* const* items;
		size_t count;
		// The type of the first item, and whether any other item of the name
		// has another type.
		type_code type;
		bool mixed;
	};

	// An index of every item of list.
	explicit NameIndex(const ZvList<ZvMessageItem*>& list);
	~NameIndex();

	NameIndex(const NameIndex&) = delete;
	NameIndex& operator=(const NameIndex&) = delete;

	// Items indexed; equals the list's count while the two agree.
	int32 Count() const { return fCount; }
	// Distinct names.
	int32 CountNames() const { return fFields; }

	// item was appended to the list.
	void Added(ZvMessageItem* item);
	// item, still holding its name, was removed from the list.
	void Removed(ZvMessageItem* item);

	// The items called name in *names; false when there are none.
	bool Find(const char* name, Names* names) const;
	// The index-th item called name whose type is type (ZV_ANY_TYPE: any),
	// or null.
	ZvMessageItem* Find(const char* name, type_code type, int32 index) const;

	// Calls visit(names) for every distinct name.
	template <typename Visit> void ForEachField(Visit visit) const
	{
		for (size_t i = 0; i < fSize; i++) {
			if (fSlots[i].kind != kEmpty)
				visit(_NamesOf(fSlots[i]));
		}
	}

private:
	// A name of two items or more: its items in list order. The name is
	// kept here too, so that a probe compares it without reaching an item.
	struct Field
	{
		type_code type;
		bool mixed;
		char name[64];
		std::vector<ZvMessageItem*> items;
	};

	enum : uint32
	{
		kEmpty = 0,
		kSingle = 1,
		kField = 2
	};

	// One slot of the table. A name of one item, by far the most common
	// case, keeps that item here: a lookup then reads the slot and the item
	// only (the item holds the name it is compared with), with no record
	// of its own to allocate on the way in or to miss in the cache.
	struct Slot
	{
		uint32 hash;
		uint32 kind;
		union {
			ZvMessageItem* item; // kSingle
			Field* field;        // kField
		};
	};

	static Names _NamesOf(const Slot& slot);
	static const char* _NameOf(const Slot& slot);
	// The slot holding name, or the empty slot where it would go.
	size_t _Slot(const char* name, uint32 hash) const;
	void _Grow();
	void _Erase(size_t slot);

	// Open addressing with linear probing; the size is a power of two and at
	// most half the slots are used.
	Slot* fSlots;
	size_t fSize;
	int32 fFields;
	int32 fCount;
};

} // namespace zvkit::internal

#endif // _ZV_NAME_INDEX_H
