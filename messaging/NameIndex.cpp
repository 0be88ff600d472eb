// NameIndex: the hash index of a large message's field names.
#include "NameIndex.h"

#include <ZvMessage.h>

#include "base/internal/ArrayStore.h"

#include <new>

#include <stdint.h>
#include <string.h>

namespace zvkit::internal {

namespace {

// Longest name an item holds.
constexpr size_t kMaxNameLength = 63;
constexpr size_t kFirstSlots = 64;
constexpr size_t kFirstEntries = 16;
// The table grows fourfold: each growth places every name again, and a
// message of many names then pays for a third as many placements as with
// doubling, for a table at most twice as large.
constexpr size_t kGrowth = 4;
// Share of the slots that may be used before the table grows.
constexpr size_t kLoadNumerator = 1;
constexpr size_t kLoadDenominator = 2;

size_t MaxFields(size_t slots)
{
	return slots / kLoadDenominator * kLoadNumerator;
}

constexpr uint64 kMultiplier = 0x9e3779b97f4a7c15ull;

uint64 Load64(const char* at)
{
	uint64 word;
	memcpy(&word, at, sizeof(word));
	return word;
}

uint32 Load32(const char* at)
{
	uint32 word;
	memcpy(&word, at, sizeof(word));
	return word;
}

// Whether the first size bytes (1 to 64) of a and b are the same; both
// hold at least size bytes. Inline, as the names compared are short and a
// call to the library's comparison cost as much as the rest of a probe.
bool SameBytes(const char* a, const char* b, size_t size)
{
	if (size >= 8) {
		for (size_t at = 0; at + 8 < size; at += 8) {
			if (Load64(a + at) != Load64(b + at))
				return false;
		}
		return Load64(a + size - 8) == Load64(b + size - 8);
	}
	if (size >= 4)
		return Load32(a) == Load32(b) && Load32(a + size - 4) == Load32(b + size - 4);
	for (size_t at = 0; at < size; at++) {
		if (a[at] != b[at])
			return false;
	}
	return true;
}

// The index's arrays grow with the message, to megabytes for the largest:
// they come from the array store, which keeps large freed ones for the next
// large message (see ArrayStore.h).
uint32* AllocateSlots(size_t count)
{
	void* slots = AllocateArray(count * sizeof(uint32));
	memset(slots, 0, count * sizeof(uint32));
	return static_cast<uint32*>(slots);
}

void FreeSlots(uint32* slots, size_t count)
{
	FreeArray(slots, count * sizeof(uint32));
}

} // namespace

// Eight characters at a time: a character at a time made the hash a chain
// of dependent multiplications, the larger part of a lookup. The length
// comes first (strnlen, vectorised by the C library and bounded by the
// longest name), so that every read stays inside the name: the last few
// characters are read as one word ending at the name's end, or as two
// overlapping halves, or byte by byte, never past the terminating zero.
inline NameKey Key(const char* name)
{
	static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
	              "a name's first character is the lowest byte of its first word");
	const size_t length = strnlen(name, kMaxNameLength + 1);
	if (length > kMaxNameLength)
		return NameKey{0, static_cast<uint32>(kMaxNameLength + 1)};
	uint64 hash = 0x243f6a8885a308d3ull;
	size_t at = 0;
	for (; at + 8 <= length; at += 8)
		hash = (hash ^ Load64(name + at)) * kMultiplier;
	// The characters after the last whole word, as the low bytes of a word.
	const size_t tail = length - at;
	uint64 kept = 0;
	if (tail == 0) {
		kept = 0;
	} else if (length >= 8) {
		kept = Load64(name + length - 8) >> (8 * (8 - tail));
	} else if (tail >= 4) {
		kept = Load32(name) | static_cast<uint64>(Load32(name + tail - 4)) << (8 * (tail - 4));
	} else {
		kept = static_cast<uint64>(static_cast<uint8>(name[0])) |
		       static_cast<uint64>(static_cast<uint8>(name[tail / 2])) << (8 * (tail / 2)) |
		       static_cast<uint64>(static_cast<uint8>(name[tail - 1])) << (8 * (tail - 1));
	}
	hash = (hash ^ kept ^ (static_cast<uint64>(length) << 56)) * kMultiplier;
	// A product's high bits depend on all the bits below them: the high half
	// folded onto the low one and multiplied once more gives a high half in
	// which every bit depends on every character (its low bits choose the
	// slot, its high ones tell names apart within it).
	hash = (hash ^ (hash >> 32)) * kMultiplier;
	return NameKey{static_cast<uint32>(hash >> 32), static_cast<uint32>(length)};
}

NameKey KeyOfName(const char* name)
{
	return Key(name);
}

NameIndex::NameIndex(const ZvList<ZvMessageItem*>& list)
    : fSlots(nullptr), fEntries(nullptr), fEntryCapacity(kFirstEntries), fSize(kFirstSlots),
      fEntryMask(kFirstSlots - 1), fFields(0), fCount(0)
{
	fSlots = AllocateSlots(fSize);
	try {
		fEntries = static_cast<Entry*>(AllocateArray(kFirstEntries * sizeof(Entry)));
	} catch (...) {
		FreeSlots(fSlots, fSize);
		throw;
	}
	for (int32 i = 0; i < list.CountItems(); i++)
		Added(list.ItemAt(i));
}

NameIndex::~NameIndex()
{
	for (int32 i = 0; i < fFields; i++) {
		if (fEntries[i].kind == kField)
			delete fEntries[i].field;
	}
	FreeArray(fEntries, fEntryCapacity * sizeof(Entry));
	FreeSlots(fSlots, fSize);
}

NameIndex::Names NameIndex::_NamesOf(const Entry& entry)
{
	if (entry.kind == kSingle)
		return Names{&entry.item, 1, entry.item->type, false};
	const Field* field = entry.field;
	return Names{field->items.data(), field->items.size(), field->type, field->mixed};
}

const char* NameIndex::_NameOf(const Entry& entry)
{
	return entry.kind == kSingle ? entry.item->name : entry.field->name;
}

inline int32 NameIndex::_Find(const char* name, NameKey key, size_t* slot) const
{
	const uint32 hash = key.hash;
	const size_t mask = fSize - 1;
	const uint32 tagMask = ~fEntryMask;
	size_t at = hash & mask;
	for (uint32 value; (value = fSlots[at]) != 0; at = (at + 1) & mask) {
		if (((value ^ hash) & tagMask) != 0)
			continue;
		const int32 entry = static_cast<int32>((value & fEntryMask) - 1);
		const Entry& candidate = fEntries[entry];
		// Names stored in the index are at most 63 characters long and
		// kept in 64-byte arrays; name holds key.length + 1 bytes.
		if (candidate.hash == hash && SameBytes(_NameOf(candidate), name, key.length + 1)) {
			*slot = at;
			return entry;
		}
	}
	*slot = at;
	return -1;
}

void NameIndex::_Grow()
{
	// Only the entries' hashes are read: the items stay where they are, and
	// the entries keep their numbers.
	const size_t size = fSize * kGrowth;
	uint32* slots = AllocateSlots(size);
	FreeSlots(fSlots, fSize);
	fSlots = slots;
	fSize = size;
	fEntryMask = static_cast<uint32>(size - 1);
	const size_t mask = size - 1;
	const uint32 tagMask = ~fEntryMask;
	// The entries are read in order; their slots are spread over the whole
	// table, so each is asked for a few entries ahead.
	constexpr int32 kAhead = 8;
	for (int32 i = 0; i < fFields; i++) {
		if (i + kAhead < fFields)
			__builtin_prefetch(fSlots + (fEntries[i + kAhead].hash & mask), 1);
		const uint32 hash = fEntries[i].hash;
		size_t at = hash & mask;
		while (fSlots[at] != 0)
			at = (at + 1) & mask;
		fSlots[at] = (hash & tagMask) | static_cast<uint32>(i + 1);
	}
}

void NameIndex::_GrowEntries()
{
	const size_t capacity = fEntryCapacity * 2;
	Entry* entries = static_cast<Entry*>(AllocateArray(capacity * sizeof(Entry)));
	memcpy(entries, fEntries, static_cast<size_t>(fFields) * sizeof(Entry));
	FreeArray(fEntries, fEntryCapacity * sizeof(Entry));
	fEntries = entries;
	fEntryCapacity = capacity;
}

void NameIndex::_Erase(size_t slot, int32 entry)
{
	if (fEntries[entry].kind == kField)
		delete fEntries[entry].field;

	// Backward-shift deletion: later slots of the probe run move into the
	// hole when their home slot does not lie between the hole and them.
	const size_t mask = fSize - 1;
	fSlots[slot] = 0;
	size_t hole = slot;
	for (size_t next = (slot + 1) & mask; fSlots[next] != 0; next = (next + 1) & mask) {
		const size_t home = fEntries[(fSlots[next] & fEntryMask) - 1].hash & mask;
		const bool stays =
		    hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
		if (!stays) {
			fSlots[hole] = fSlots[next];
			fSlots[next] = 0;
			hole = next;
		}
	}

	// The last entry moves into the gap, and the slot that refers to it
	// follows it.
	fFields--;
	const int32 last = fFields;
	if (entry == last)
		return;
	const uint32 lastRef = static_cast<uint32>(last + 1);
	size_t at = fEntries[last].hash & mask;
	while ((fSlots[at] & fEntryMask) != lastRef)
		at = (at + 1) & mask;
	fSlots[at] = (fSlots[at] & ~fEntryMask) | static_cast<uint32>(entry + 1);
	fEntries[entry] = fEntries[last];
}

void NameIndex::Added(ZvMessageItem* item)
{
	Added(item, Key(item->name));
}

void NameIndex::Added(ZvMessageItem* item, NameKey key)
{
	fCount++;
	const uint32 hash = key.hash;
	size_t slot;
	const int32 found = _Find(item->name, key, &slot);
	if (found < 0) {
		if (static_cast<size_t>(fFields) + 1 > MaxFields(fSize)) {
			_Grow();
			_Find(item->name, key, &slot);
		}
		if (static_cast<size_t>(fFields) == fEntryCapacity)
			_GrowEntries();
		const int32 entry = fFields++;
		fEntries[entry].hash = hash;
		fEntries[entry].kind = kSingle;
		fEntries[entry].item = item;
		fSlots[slot] = (hash & ~fEntryMask) | static_cast<uint32>(entry + 1);
		return;
	}
	Entry& entry = fEntries[found];
	if (entry.kind == kSingle) {
		// The name's second item: it gets a record of its own.
		ZvMessageItem* first = entry.item;
		Field* field = new Field;
		field->type = first->type;
		field->mixed = false;
		memcpy(field->name, first->name, sizeof(field->name));
		field->items.reserve(4);
		field->items.push_back(first);
		entry.kind = kField;
		entry.field = field;
	}
	Field* field = entry.field;
	if (item->type != field->type)
		field->mixed = true;
	field->items.push_back(item);
}

void NameIndex::Removed(ZvMessageItem* item)
{
	fCount--;
	size_t slot;
	const int32 found = _Find(item->name, Key(item->name), &slot);
	if (found < 0)
		return;
	Entry& entry = fEntries[found];
	if (entry.kind == kSingle) {
		if (entry.item == item)
			_Erase(slot, found);
		return;
	}
	// Items are mostly removed from the end of their name.
	std::vector<ZvMessageItem*>& items = entry.field->items;
	for (size_t i = items.size(); i-- > 0;) {
		if (items[i] == item) {
			items.erase(items.begin() + static_cast<ptrdiff_t>(i));
			break;
		}
	}
	// A name keeps its record down to its last item, and a name that once
	// mixed types stays marked so: its typed lookups walk its own items,
	// which is still right.
	if (items.empty())
		_Erase(slot, found);
}

bool NameIndex::Find(const char* name, Names* names) const
{
	const NameKey key = Key(name);
	if (key.TooLong())
		return false;
	size_t slot;
	const int32 found = _Find(name, key, &slot);
	if (found < 0)
		return false;
	*names = _NamesOf(fEntries[found]);
	return true;
}

ZvMessageItem* NameIndex::Find(const char* name, type_code type, int32 index) const
{
	if (index < 0)
		return nullptr;
	const NameKey key = Key(name);
	if (key.TooLong())
		return nullptr;
	size_t slot;
	const int32 found = _Find(name, key, &slot);
	if (found < 0)
		return nullptr;
	const Entry& entry = fEntries[found];
	if (entry.kind == kSingle) {
		ZvMessageItem* item = entry.item;
		return index == 0 && (type == ZV_ANY_TYPE || type == item->type) ? item : nullptr;
	}
	const Field* field = entry.field;
	const std::vector<ZvMessageItem*>& items = field->items;
	if (type == ZV_ANY_TYPE || !field->mixed) {
		if (type != ZV_ANY_TYPE && type != field->type)
			return nullptr;
		return static_cast<size_t>(index) < items.size() ? items[index] : nullptr;
	}
	int32 matches = 0;
	for (ZvMessageItem* item : items) {
		if (item->type != type)
			continue;
		if (matches == index)
			return item;
		matches++;
	}
	return nullptr;
}

} // namespace zvkit::internal
