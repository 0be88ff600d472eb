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
    : fSlots(kFirstSlots, nullptr), fFields(0), fCount(0)
{
	for (int32 i = 0; i < list.CountItems(); i++)
		Added(list.ItemAt(i));
}

NameIndex::~NameIndex()
{
	for (Field* field : fSlots)
		delete field;
}

size_t NameIndex::_Slot(const char* name, uint32 hash) const
{
	const size_t mask = fSlots.size() - 1;
	size_t slot = hash & mask;
	while (fSlots[slot] != nullptr) {
		const Field* field = fSlots[slot];
		if (field->hash == hash && strcmp(field->name, name) == 0)
			break;
		slot = (slot + 1) & mask;
	}
	return slot;
}

void NameIndex::_Grow()
{
	std::vector<Field*> old(fSlots.size() * 2, nullptr);
	old.swap(fSlots);
	const size_t mask = fSlots.size() - 1;
	for (Field* field : old) {
		if (field == nullptr)
			continue;
		size_t slot = field->hash & mask;
		while (fSlots[slot] != nullptr)
			slot = (slot + 1) & mask;
		fSlots[slot] = field;
	}
}

void NameIndex::_Erase(size_t slot)
{
	// Backward-shift deletion: later entries of the probe run move into the
	// hole when their home slot does not lie between the hole and them.
	delete fSlots[slot];
	fSlots[slot] = nullptr;
	fFields--;
	const size_t mask = fSlots.size() - 1;
	size_t hole = slot;
	size_t next = (slot + 1) & mask;
	while (fSlots[next] != nullptr) {
		const size_t home = fSlots[next]->hash & mask;
		const bool stays =
		    hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
		if (!stays) {
			fSlots[hole] = fSlots[next];
			fSlots[next] = nullptr;
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
	size_t slot = _Slot(item->name, hash);
	Field* field = fSlots[slot];
	if (field == nullptr) {
		if (static_cast<size_t>(fFields + 1) * 2 > fSlots.size()) {
			_Grow();
			slot = _Slot(item->name, hash);
		}
		field = new Field;
		field->hash = hash;
		field->type = item->type;
		field->mixed = false;
		memcpy(field->name, item->name, sizeof(field->name));
		fSlots[slot] = field;
		fFields++;
	} else if (item->type != field->type) {
		field->mixed = true;
	}
	field->items.push_back(item);
}

void NameIndex::Removed(ZvMessageItem* item)
{
	fCount--;
	bool tooLong;
	const uint32 hash = HashName(item->name, &tooLong);
	const size_t slot = _Slot(item->name, hash);
	Field* field = fSlots[slot];
	if (field == nullptr)
		return;
	// Items are mostly removed from the end of their name.
	std::vector<ZvMessageItem*>& items = field->items;
	for (size_t i = items.size(); i-- > 0;) {
		if (items[i] == item) {
			items.erase(items.begin() + static_cast<ptrdiff_t>(i));
			break;
		}
	}
	// A name that once mixed types stays marked so: its typed lookups walk
	// its own items, which is still right.
	if (items.empty())
		_Erase(slot);
}

const NameIndex::Field* NameIndex::Find(const char* name) const
{
	bool tooLong;
	const uint32 hash = HashName(name, &tooLong);
	if (tooLong)
		return nullptr;
	return fSlots[_Slot(name, hash)];
}

ZvMessageItem* NameIndex::Find(const char* name, type_code type, int32 index) const
{
	const Field* field = Find(name);
	if (field == nullptr || index < 0)
		return nullptr;
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
