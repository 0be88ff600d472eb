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

#include <stddef.h>

#include <vector>

class ZvMessageItem;

namespace zvkit::internal {

// Messages of fewer items than this are searched by walking their list: up
// to here the walk is as fast as a hash probe, and small messages carry no
// index at all.
constexpr int32 kNameIndexThreshold = 24;

// What the index files a name under: its hash and its length. A length
// above 63 means that no item can hold the name (the hash is then 0).
struct NameKey
{
	uint32 hash;
	uint32 length;

	bool TooLong() const { return length > 63; }
};

// The key of name (not null). Exposed for tests that need names of equal
// hashes.
NameKey KeyOfName(const char* name);

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
	// Slots of the hash table (for tests of its growth).
	size_t CountSlots() const { return fSize; }

	// Asks the processor for the table line where a name of key is probed,
	// so that an Added() of it made after other work finds the line at hand.
	void Prefetch(NameKey key) const { __builtin_prefetch(fSlots + (key.hash & (fSize - 1))); }

	// item was appended to the list; key, when given, is its name's.
	void Added(ZvMessageItem* item);
	void Added(ZvMessageItem* item, NameKey key);
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
		for (int32 i = 0; i < fFields; i++)
			visit(_NamesOf(fEntries[i]));
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
		kSingle = 1,
		kField = 2
	};

	// One distinct name. A name of one item, by far the most common case,
	// keeps that item here: a lookup then reads the entry and the item only
	// (the item holds the name it is compared with), with no record of its
	// own to allocate on the way in or to miss in the cache.
	struct Entry
	{
		uint32 hash;
		uint32 kind;
		union {
			ZvMessageItem* item; // kSingle
			Field* field;        // kField
		};
	};

	static Names _NamesOf(const Entry& entry);
	static const char* _NameOf(const Entry& entry);
	// The entry of name, or -1; *slot is set to the slot that refers to it,
	// or to the empty slot where it would go.
	int32 _Find(const char* name, NameKey key, size_t* slot) const;
	void _Grow();
	void _GrowEntries();
	void _Erase(size_t slot, int32 entry);

	// The names live in fEntries, densely and in no particular order; the
	// table fSlots maps a hash to an entry. A slot is one word: 0 when
	// empty, else the entry's number plus one in its low bits (below
	// fSize, as entries are fewer than slots) and the high bits of the
	// name's hash above them, so that most probes of another name are told
	// apart without reaching the entry. A table of 4-byte slots is a
	// quarter of one of pointers and hashes, and growing it reads only the
	// entries' hashes, never an item. Open addressing with linear probing;
	// the size is a power of two, at most half the slots are used, and a
	// full table grows fourfold. fEntries holds fEntryCapacity entries and
	// doubles when full.
	uint32* fSlots;
	Entry* fEntries;
	size_t fEntryCapacity;
	size_t fSize;
	uint32 fEntryMask;
	int32 fFields;
	int32 fCount;
};

} // namespace zvkit::internal

#endif // _ZV_NAME_INDEX_H
