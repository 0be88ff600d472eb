// NameIndex: the hash index of a large message's field names.
#include "NameIndex.h"

#include <ZvMessage.h>

#include <string.h>

namespace zvkit::internal {

namespace {

// Longest name an item holds.
constexpr size_t kMaxNameLength = 63;
constexpr size_t kFirstSlots = 64;

// FNV-1a over the name's characters. Sets *tooLong, and stops, when the name
// is longer than any item's name can be.
uint32 HashName(const char* name, bool* tooLong)
{
	uint32 hash = 2166136261u;
	size_t length = 0;
	for (; name[length] != '\0'; length++) {
		if (length == kMaxNameLength) {
			*tooLong = true;
			return 0;
		}
		hash = (hash ^ static_cast<uint8>(name[length])) * 16777619u;
	}
	*tooLong = false;
	return hash;
}

} // namespace

NameIndex::NameIndex(const ZvList<ZvMessageItem*>& list)
    : fSlots(new Slot[kFirstSlots]()), fSize(kFirstSlots), fFields(0), fCount(0)
{
	for (int32 i = 0; i < list.CountItems(); i++)
		Added(list.ItemAt(i));
}

NameIndex::~NameIndex()
{
	for (size_t i = 0; i < fSize; i++) {
		if (fSlots[i].kind == kField)
			delete fSlots[i].field;
	}
	delete[] fSlots;
}

NameIndex::Names NameIndex::_NamesOf(const Slot& slot)
{
	if (slot.kind == kSingle)
		return Names{&slot.item, 1, slot.item->type, false};
	const Field* field = slot.field;
	return Names{field->items.data(), field->items.size(), field->type, field->mixed};
}

const char* NameIndex::_NameOf(const Slot& slot)
{
	return slot.kind == kSingle ? slot.item->name : slot.field->name;
}

size_t NameIndex::_Slot(const char* name, uint32 hash) const
{
	const size_t mask = fSize - 1;
	size_t slot = hash & mask;
	while (fSlots[slot].kind != kEmpty) {
		if (fSlots[slot].hash == hash && strcmp(_NameOf(fSlots[slot]), name) == 0)
			break;
		slot = (slot + 1) & mask;
	}
	return slot;
}

void NameIndex::_Grow()
{
	Slot* old = fSlots;
	const size_t oldSize = fSize;
	fSize = oldSize * 2;
	fSlots = new Slot[fSize]();
	const size_t mask = fSize - 1;
	for (size_t i = 0; i < oldSize; i++) {
		if (old[i].kind == kEmpty)
			continue;
		size_t slot = old[i].hash & mask;
		while (fSlots[slot].kind != kEmpty)
			slot = (slot + 1) & mask;
		fSlots[slot] = old[i];
	}
	delete[] old;
}

void NameIndex::_Erase(size_t slot)
{
	// Backward-shift deletion: later entries of the probe run move into the
	// hole when their home slot does not lie between the hole and them.
	if (fSlots[slot].kind == kField)
		delete fSlots[slot].field;
	fSlots[slot] = Slot();
	fFields--;
	const size_t mask = fSize - 1;
	size_t hole = slot;
	size_t next = (slot + 1) & mask;
	while (fSlots[next].kind != kEmpty) {
		const size_t home = fSlots[next].hash & mask;
		const bool stays =
		    hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
		if (!stays) {
			fSlots[hole] = fSlots[next];
			fSlots[next] = Slot();
			hole = next;
		}
		next = (next + 1) & mask;
	}
}

void NameIndex::Added(ZvMessageItem* item)
{
	fCount++;
	bool tooLong;
	const uint32 hash = HashName(item->name, &tooLong);
	size_t at = _Slot(item->name, hash);
	Slot& slot = fSlots[at];
	if (slot.kind == kEmpty) {
		if (static_cast<size_t>(fFields + 1) * 2 > fSize) {
			_Grow();
			at = _Slot(item->name, hash);
		}
		fSlots[at].hash = hash;
		fSlots[at].kind = kSingle;
		fSlots[at].item = item;
		fFields++;
		return;
	}
	if (slot.kind == kSingle) {
		// The name's second item: it gets a record of its own.
		ZvMessageItem* first = slot.item;
		Field* field = new Field;
		field->type = first->type;
		field->mixed = false;
		memcpy(field->name, first->name, sizeof(field->name));
		field->items.reserve(4);
		field->items.push_back(first);
		slot.kind = kField;
		slot.field = field;
	}
	Field* field = slot.field;
	if (item->type != field->type)
		field->mixed = true;
	field->items.push_back(item);
}

void NameIndex::Removed(ZvMessageItem* item)
{
	fCount--;
	bool tooLong;
	const uint32 hash = HashName(item->name, &tooLong);
	const size_t at = _Slot(item->name, hash);
	Slot& slot = fSlots[at];
	if (slot.kind == kEmpty)
		return;
	if (slot.kind == kSingle) {
		if (slot.item == item)
			_Erase(at);
		return;
	}
	// Items are mostly removed from the end of their name.
	std::vector<ZvMessageItem*>& items = slot.field->items;
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
		_Erase(at);
}

bool NameIndex::Find(const char* name, Names* names) const
{
	bool tooLong;
	const uint32 hash = HashName(name, &tooLong);
	if (tooLong)
		return false;
	const Slot& slot = fSlots[_Slot(name, hash)];
	if (slot.kind == kEmpty)
		return false;
	*names = _NamesOf(slot);
	return true;
}

ZvMessageItem* NameIndex::Find(const char* name, type_code type, int32 index) const
{
	if (index < 0)
		return nullptr;
	bool tooLong;
	const uint32 hash = HashName(name, &tooLong);
	if (tooLong)
		return nullptr;
	const Slot& slot = fSlots[_Slot(name, hash)];
	if (slot.kind == kSingle) {
		ZvMessageItem* item = slot.item;
		return index == 0 && (type == ZV_ANY_TYPE || type == item->type) ? item : nullptr;
	}
	if (slot.kind == kEmpty)
		return nullptr;
	const Field* field = slot.field;
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
