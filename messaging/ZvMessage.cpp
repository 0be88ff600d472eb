// ZvMessage: lifecycle, merging, and the generic, type-code-driven field
// operations on which the typed accessors and the flat form rest.
#include <ZvMessage.h>

#include "FlatFormat.h"
#include "MessageParts.h"
#include "NameIndex.h"
#include "base/internal/BlockCache.h"
#include "base/internal/Checks.h"

#include <string.h>

using zvkit::internal::kNameIndexThreshold;
using zvkit::internal::MessageParts;
using zvkit::internal::NameIndex;

namespace {

// The message's item list and the temporary list of distinct names grow and
// shrink by this step.
const int32 kListStep = 16;
// Items of a message whose lines _PrefetchItems asks for.
const int32 kPrefetchedItems = 4;

bool NameMatches(const ZvMessageItem* item, const char* name)
{
	// Most names that differ differ in their first character: test it
	// before calling strcmp.
	return item->name[0] == name[0] && strcmp(item->name, name) == 0;
}

bool TypeMatches(const ZvMessageItem* item, type_code type)
{
	return type == ZV_ANY_TYPE || item->type == type;
}

} // namespace

ZvMessage::ZvMessage(uint32 what) : what(what), fFlags(0), items(kListStep), fParts(nullptr) {}

ZvMessage::ZvMessage(int what) : ZvMessage(static_cast<uint32>(what)) {}

ZvMessage::ZvMessage(const ZvMessage& other) : ZvMessage(&other) {}

ZvMessage::ZvMessage(const ZvMessage* other) : what(0), fFlags(0), items(kListStep), fParts(nullptr)
{
	// A null message gives an empty one with what 0.
	if (other == nullptr)
		return;
	what = other->what;
	*this += *other;
}

ZvMessage::ZvMessage(const void* flat) : what(0), fFlags(0), items(kListStep), fParts(nullptr)
{
	Unflatten(flat);
}

ZvMessage::ZvMessage(const void* flat, size_t size)
    : what(0), fFlags(0), items(kListStep), fParts(nullptr)
{
	Unflatten(flat, size);
}

ZvMessage::~ZvMessage()
{
	MessageParts* parts = fParts.load(std::memory_order_relaxed);
	if (parts != nullptr && parts->replySlot != nullptr)
		_AbandonRequest();
	MakeEmpty();
	delete parts;
}

MessageParts* ZvMessage::_Parts() const
{
	MessageParts* parts = fParts.load(std::memory_order_acquire);
	if (parts != nullptr)
		return parts;
	// Readers of a const message may get here together: the first record
	// published wins and the others are thrown away.
	MessageParts* fresh = new MessageParts;
	if (fParts.compare_exchange_strong(parts, fresh, std::memory_order_acq_rel,
	                                   std::memory_order_acquire)) {
		return fresh;
	}
	delete fresh;
	return parts;
}

inline NameIndex* ZvMessage::_IndexMade() const
{
	const MessageParts* parts = fParts.load(std::memory_order_acquire);
	return parts != nullptr ? parts->index.load(std::memory_order_acquire) : nullptr;
}

// Kept out of line, with _DropIndex: the lookups and changes of small
// messages, which never get here, stay small enough to be inlined.
__attribute__((noinline)) NameIndex* ZvMessage::_Index() const
{
	const int32 count = items.CountItems();
	NameIndex* index = _IndexMade();
	if (index == nullptr) {
		if (count < kNameIndexThreshold)
			return nullptr;
		// Readers of a const message may get here together: the first index
		// published wins and the others are thrown away.
		MessageParts* parts = _Parts();
		NameIndex* fresh = new NameIndex(items);
		if (parts->index.compare_exchange_strong(index, fresh, std::memory_order_acq_rel,
		                                         std::memory_order_acquire)) {
			return fresh;
		}
		delete fresh;
	}
	// Out of step when a derived class changed the list itself: the next
	// change made through the message drops it.
	return index->Count() == count ? index : nullptr;
}

__attribute__((noinline)) void ZvMessage::_DropIndex()
{
	// Only the message's sole user gets here: a plain load and store do, and
	// cost nothing on the common path where there is no index.
	MessageParts* parts = fParts.load(std::memory_order_relaxed);
	NameIndex* index = parts != nullptr ? parts->index.load(std::memory_order_relaxed) : nullptr;
	if (index != nullptr) {
		parts->index.store(nullptr, std::memory_order_relaxed);
		delete index;
	}
}

// The index when the message is large enough to use one; small messages
// walk their list without a call.
inline NameIndex* ZvMessage::_LargeIndex() const
{
	const int32 count = items.CountItems();
	if (count < kNameIndexThreshold)
		return nullptr;
	// An index in step with the list is used without a call; making one,
	// or finding it out of step, is left to _Index.
	NameIndex* index = _IndexMade();
	if (index != nullptr && index->Count() == count)
		return index;
	return _Index();
}

// Used in this file only, so inline here.
inline void ZvMessage::_AppendItem(ZvMessageItem* item)
{
	NameIndex* index = _IndexMade();
	if (index != nullptr && index->Count() != items.CountItems()) {
		_DropIndex();
		index = nullptr;
	}
	items.AddItem(item);
	if (index != nullptr)
		index->Added(item);
}

inline void ZvMessage::_DeleteItemAt(int32 at)
{
	NameIndex* index = _IndexMade();
	if (index != nullptr && index->Count() != items.CountItems()) {
		_DropIndex();
		index = nullptr;
	}
	ZvMessageItem* item = items.RemoveItem(at);
	if (index != nullptr && item != nullptr)
		index->Removed(item);
	delete item;
}

void ZvMessage::_PrefetchList() const
{
	// The slot array's first line holds the first eight items.
	if (items.items != nullptr)
		__builtin_prefetch(items.items);
}

void ZvMessage::_PrefetchItems() const
{
	// What a lookup reads of an item: its first line (type, name) and the
	// end of its name buffer, where a small value lives (an item may span
	// two lines). Small messages are the common case of posted ones; the
	// lines of a large message's later items come as its handler gets to them.
	const int32 count = MIN(items.CountItems(), kPrefetchedItems);
	for (int32 i = 0; i < count; i++) {
		const ZvMessageItem* item = items.items[i];
		__builtin_prefetch(item);
		__builtin_prefetch(reinterpret_cast<const char*>(item) + sizeof(ZvMessageItem) - 1);
	}
}

// Single messages come from the block cache (see ZvMessage.h).

void* ZvMessage::operator new(size_t size)
{
	return zvkit::internal::AllocateBlock(size);
}

void* ZvMessage::operator new(size_t size, const std::nothrow_t& tag) noexcept
{
	return zvkit::internal::AllocateBlock(size, tag);
}

void ZvMessage::operator delete(void* block, size_t size)
{
	zvkit::internal::FreeBlock(block, size);
}

void ZvMessage::operator delete(void* block, const std::nothrow_t&) noexcept
{
	zvkit::internal::FreeUnsizedBlock(block);
}

ZvMessage& ZvMessage::operator=(const ZvMessage& other)
{
	// No self-assignment guard: emptying first empties other too when it is
	// this message, which then keeps only its what.
	MakeEmpty();
	what = other.what;
	for (int32 i = 0; i < other.items.CountItems(); i++)
		_AppendItem(new ZvMessageItem(other.items.ItemAt(i)));
	return *this;
}

void ZvMessage::Set(const ZvMessage* other)
{
	// Setting from a null message changes nothing.
	if (other != nullptr)
		*this = *other;
}

void ZvMessage::SetFlags(uint32 flags)
{
	fFlags = flags;
}

void ZvMessage::MakeEmpty()
{
	if (_IndexMade() != nullptr)
		_DropIndex();
	// The items of a message of very many items (more than the core's cache
	// holds) are mostly out of the cache by the time it is emptied, and
	// deleting one reads it: each is asked for a few turns ahead.
	constexpr int32 kFarItems = 8192;
	constexpr int32 kAhead = 16;
	if (items.CountItems() > kFarItems) {
		while (items.CountItems() > kAhead) {
			const int32 last = items.CountItems() - 1;
			__builtin_prefetch(items.items[last - kAhead]);
			delete items.RemoveItem(last);
		}
	}
	while (items.CountItems() > 0)
		delete items.RemoveItem(items.CountItems() - 1);
}

bool ZvMessage::IsEmpty() const
{
	return items.CountItems() == 0;
}

int32 ZvMessage::CountNames(type_code type) const
{
	if (items.CountItems() == 0)
		return 0;

	if (const NameIndex* index = _LargeIndex()) {
		if (type == ZV_ANY_TYPE)
			return index->CountNames();
		int32 names = 0;
		index->ForEachField([type, &names](const NameIndex::Names& field) {
			if (!field.mixed) {
				names += field.type == type ? 1 : 0;
				return;
			}
			for (size_t i = 0; i < field.count; i++) {
				if (field.items[i]->type == type) {
					names++;
					return;
				}
			}
		});
		return names;
	}

	ZvList<char*> names(kListStep);
	for (int32 i = 0; i < items.CountItems(); i++) {
		ZvMessageItem* item = items.ItemAt(i);
		if (!TypeMatches(item, type))
			continue;
		bool known = false;
		for (int32 j = 0; j < names.CountItems() && !known; j++)
			known = strcmp(names.ItemAt(j), item->name) == 0;
		if (!known)
			names.AddItem(item->name);
	}
	return names.CountItems();
}

bool ZvMessage::GetInfo(type_code type, int32 index, char** name, type_code* foundType,
                        int32* count) const
{
	const int32 total = items.CountItems();
	if (total == 0 || (type == ZV_ANY_TYPE && (index < 0 || index >= total))) {
		if (count != nullptr)
			*count = 0;
		return false;
	}

	if (type == ZV_ANY_TYPE) {
		ZvMessageItem* item = items.ItemAt(index);
		if (name != nullptr)
			*name = item->name;
		if (foundType != nullptr)
			*foundType = item->type;
		if (count != nullptr)
			*count = total;
		return true;
	}

	int32 ofType = 0;
	bool found = false;
	for (int32 i = 0; i < total; i++) {
		ZvMessageItem* item = items.ItemAt(i);
		if (item->type != type)
			continue;
		if (ofType == index) {
			found = true;
			if (name != nullptr)
				*name = item->name;
		}
		ofType++;
	}
	if (!found) {
		if (count != nullptr)
			*count = 0;
		return false;
	}
	if (count != nullptr)
		*count = ofType;
	if (foundType != nullptr)
		*foundType = type;
	return true;
}

bool ZvMessage::GetInfo(const char* name, type_code* type, int32* count) const
{
	int32 found = 0;
	const NameIndex* index = name != nullptr ? _LargeIndex() : nullptr;
	if (index != nullptr) {
		NameIndex::Names field;
		if (index->Find(name, &field)) {
			if (type != nullptr)
				*type = field.items[0]->type;
			found = static_cast<int32>(field.count);
		}
	} else if (name != nullptr) {
		for (int32 i = 0; i < items.CountItems(); i++) {
			ZvMessageItem* item = items.ItemAt(i);
			if (!NameMatches(item, name))
				continue;
			if (found == 0 && type != nullptr)
				*type = item->type;
			found++;
		}
	}
	if (count != nullptr)
		*count = found;
	return found > 0;
}

bool ZvMessage::RemoveName(const char* name)
{
	if (name == nullptr)
		return false;

	if (const NameIndex* index = _LargeIndex()) {
		NameIndex::Names field;
		if (!index->Find(name, &field))
			return false;
		// The index tells how many items bear the name: the walk goes from
		// the end, where the newest values are, and stops at the last one.
		// The items removed, and so the list's shrinking, are the same as
		// for a walk from the start.
		int32 remaining = static_cast<int32>(field.count);
		for (int32 i = items.CountItems() - 1; i >= 0 && remaining > 0; i--) {
			if (NameMatches(items.ItemAt(i), name)) {
				_DeleteItemAt(i);
				remaining--;
			}
		}
		return true;
	}

	bool removed = false;
	int32 i = 0;
	while (i < items.CountItems()) {
		if (NameMatches(items.ItemAt(i), name)) {
			_DeleteItemAt(i);
			removed = true;
		} else {
			i++;
		}
	}
	return removed;
}

bool ZvMessage::RemoveData(const char* name, int32 index)
{
	if (name == nullptr || index < 0)
		return false;

	if (const NameIndex* nameIndex = _LargeIndex()) {
		ZvMessageItem* item = nameIndex->Find(name, ZV_ANY_TYPE, index);
		if (item == nullptr)
			return false;
		// Look for the item from both ends at once: values are mostly
		// taken off the end or the start.
		ZvMessageItem* const* slots = items.items;
		for (int32 front = 0, back = items.CountItems() - 1; front <= back; front++, back--) {
			if (slots[back] == item) {
				_DeleteItemAt(back);
				return true;
			}
			if (slots[front] == item) {
				_DeleteItemAt(front);
				return true;
			}
		}
		return false;
	}

	int32 matches = 0;
	const int32 count = items.CountItems();
	ZvMessageItem* const* const slots = items.items;
	for (int32 i = 0; i < count; i++) {
		if (!NameMatches(slots[i], name))
			continue;
		if (matches == index) {
			_DeleteItemAt(i);
			return true;
		}
		matches++;
	}
	return false;
}

ZvMessage ZvMessage::operator+(const ZvMessage& other) const
{
	ZvMessage sum(this);
	sum += other;
	return ZvMessage(sum);
}

ZvMessage& ZvMessage::operator+=(const ZvMessage& other)
{
	// The bound is re-read on every turn: appending a message to itself
	// keeps finding new items and never ends.
	if (&other == this && zvkit::internal::ChecksOn() && items.CountItems() > 0) {
		zvkit::internal::CheckReport("ZvMessage::operator+=",
		                             "message appended to itself; the loop finds its own new "
		                             "items and never ends (append a copy instead)");
	}
	for (int32 i = 0; i < other.items.CountItems(); i++)
		_AppendItem(new ZvMessageItem(other.items.ItemAt(i)));
	return *this;
}

ZvMessage ZvMessage::operator-(const char* name) const
{
	ZvMessage difference(this);
	difference.RemoveName(name);
	return difference;
}

ZvMessage& ZvMessage::operator-=(const char* name)
{
	RemoveName(name);
	return *this;
}

inline ZvMessageItem* ZvMessage::_FindItem(const char* name, type_code type, int32 index) const
{
	if (name == nullptr || index < 0)
		return nullptr;

	const int32 count = items.CountItems();
	if (const NameIndex* nameIndex = _LargeIndex())
		return nameIndex->Find(name, type, index);
	// Over the slots themselves: the walk is the hot path of small messages.
	int32 matches = 0;
	ZvMessageItem* const* const end = items.items + count;
	for (ZvMessageItem* const* slot = items.items; slot < end; slot++) {
		ZvMessageItem* item = *slot;
		if (!TypeMatches(item, type) || !NameMatches(item, name))
			continue;
		if (matches == index)
			return item;
		matches++;
	}
	return nullptr;
}

bool ZvMessage::AddData(const char* name, type_code type, const void* data, int32 size)
{
	if (type == ZV_ANY_TYPE)
		return false;
	return _AddData(name, type, size, data);
}

bool ZvMessage::FindData(const char* name, type_code type, int32 index, const void** data,
                         int32* size) const
{
	if (data == nullptr)
		return false;
	ZvMessageItem* item = _FindItem(name, type, index);
	if (item == nullptr)
		return false;
	*data = item->data;
	if (size != nullptr)
		*size = item->size;
	return true;
}

bool ZvMessage::FindData(const char* name, type_code type, const void** data, int32* size) const
{
	return FindData(name, type, 0, data, size);
}

bool ZvMessage::ReplaceData(const char* name, type_code type, int32 index, const void* data,
                            int32 size)
{
	return _ReplaceData(name, type, index, size, data);
}

bool ZvMessage::ReplaceData(const char* name, type_code type, const void* data, int32 size)
{
	return _ReplaceData(name, type, 0, size, data);
}

bool ZvMessage::HasData(const char* name, type_code type, int32 index) const
{
	return _HasData(name, type, index);
}

namespace {

// The Add member a type code comes from, for the checked mode's reports.
const char* AddMemberOf(type_code type)
{
	switch (type) {
	case ZV_INT8_TYPE:
		return "ZvMessage::AddInt8";
	case ZV_INT16_TYPE:
		return "ZvMessage::AddInt16";
	case ZV_INT32_TYPE:
		return "ZvMessage::AddInt32";
	case ZV_INT64_TYPE:
		return "ZvMessage::AddInt64";
	case ZV_FLOAT_TYPE:
		return "ZvMessage::AddFloat";
	case ZV_DOUBLE_TYPE:
		return "ZvMessage::AddDouble";
	case ZV_BOOL_TYPE:
		return "ZvMessage::AddBool";
	case ZV_STRING_TYPE:
		return "ZvMessage::AddString";
	case ZV_POINTER_TYPE:
		return "ZvMessage::AddPointer";
	case ZV_COLOR_TYPE:
		return "ZvMessage::AddColor";
	case ZV_RECT_TYPE:
		return "ZvMessage::AddRect";
	case ZV_POINT_TYPE:
		return "ZvMessage::AddPoint";
	case ZV_MESSAGE_TYPE:
		return "ZvMessage::AddMessage";
	default:
		return "ZvMessage::AddData";
	}
}

// A name longer than a field keeps is cut to its first 63 bytes, perhaps
// inside a UTF-8 character: checked mode says so.
void CheckFieldName(const char* member, const char* name)
{
	const size_t kept = zvkit::internal::kNameBufferSize - 1;
	if (name == nullptr || strnlen(name, kept + 1) <= kept)
		return;
	const size_t length = strlen(name);
	// The cut falls inside a character when the first byte dropped is a
	// continuation byte.
	const bool inCharacter = (static_cast<uint8>(name[kept]) & 0xC0) == 0x80;
	zvkit::internal::CheckReport(member,
	                             "name of %zu bytes cut to %zu%s (\"%.*s...\"); Find with the full "
	                             "name will not find it",
	                             length, kept, inCharacter ? ", inside a UTF-8 character" : "",
	                             zvkit::internal::kQuotedBytes, name);
}

} // namespace

bool ZvMessage::_AddData(const char* name, type_code type, int32 size, const void* data)
{
	if (data == nullptr)
		return false;
	if (zvkit::internal::ChecksOn())
		CheckFieldName(AddMemberOf(type), name);
	NameIndex* index = _IndexMade();
	if (index == nullptr) {
		items.AddItem(new ZvMessageItem(name, type, size, data));
		return true;
	}
	if (index->Count() != items.CountItems() || name == nullptr) {
		_AppendItem(new ZvMessageItem(name, type, size, data));
		return true;
	}
	// A message of many items: the index's table line for the name, most
	// likely not in the cache, is fetched while the item is made.
	const zvkit::internal::NameKey key = zvkit::internal::KeyOfName(name);
	ZvMessageItem* item;
	if (key.TooLong()) {
		// The item keeps the name's first 63 characters.
		item = new ZvMessageItem(name, type, size, data);
		items.AddItem(item);
		index->Added(item);
		return true;
	}
	index->Prefetch(key);
	item = new ZvMessageItem(name, type, size, data);
	items.AddItem(item);
	index->Added(item, key);
	return true;
}

bool ZvMessage::_FindData(const char* name, type_code type, int32 index, ZvMessageItem** item) const
{
	if (item == nullptr)
		return false;
	ZvMessageItem* found = _FindItem(name, type, index);
	if (found == nullptr)
		return false;
	*item = found;
	return true;
}

bool ZvMessage::_ReplaceData(const char* name, type_code type, int32 index, int32 size,
                             const void* data)
{
	if (data == nullptr)
		return false;
	ZvMessageItem* item = _FindItem(name, type, index);
	if (item == nullptr)
		return false;
	item->ReplaceData(size, data);
	return true;
}

bool ZvMessage::_HasData(const char* name, type_code type, int32 index) const
{
	// A null name matches no item (it is not refused up front, but there is
	// nothing it could be equal to).
	if (items.CountItems() == 0 || index < 0)
		return false;
	return _FindItem(name, type, index) != nullptr;
}
