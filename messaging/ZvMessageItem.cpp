// ZvMessageItem: one named, typed value held as an owned byte block.
#include <ZvMessage.h>

#include "FlatFormat.h"
#include "ItemValue.h"
#include "base/internal/BlockCache.h"

#include <stdint.h>
#include <string.h>

namespace {

const char kUnnamed[] = "@@@Unnamed";

using zvkit::internal::kNameBufferSize;

// Copies name into the item's buffer, cut to 63 characters; returns the
// length kept.
size_t CopyName(char* buffer, const char* name)
{
	if (name == nullptr)
		name = kUnnamed;
	size_t length = strnlen(name, kNameBufferSize - 1);
	memcpy(buffer, name, length);
	buffer[length] = '\0';
	return length;
}

} // namespace

ZvMessageItem::ZvMessageItem() : type(0), size(0), data(nullptr)
{
	CopyName(name, nullptr);
}

ZvMessageItem::ZvMessageItem(const char* name, type_code type, int32 size, const void* data)
    : type(type), size(size), data(nullptr)
{
	const size_t nameLength = CopyName(this->name, name);
	if (size >= 1) {
		this->data = _NewBlock(size, nameLength);
		if (data != nullptr)
			memcpy(this->data, data, size);
		else
			memset(this->data, 0, size);
	}
}

ZvMessageItem::ZvMessageItem(const ZvMessageItem* other)
    : type(other->type), size(other->size), data(nullptr)
{
	// A value inside the other item comes along with its name buffer, and
	// has the same place in this one (the name is the same).
	memcpy(name, other->name, sizeof(name));
	if (size >= 1 && other->data != nullptr) {
		if (other->_ValueInside()) {
			data = reinterpret_cast<uint8*>(name) +
			       (other->data - reinterpret_cast<const uint8*>(other->name));
		} else {
			data = _NewBlock(size, strnlen(name, sizeof(name) - 1));
			memcpy(data, other->data, size);
		}
	}
}

ZvMessageItem::~ZvMessageItem()
{
	// A block read from a flat record may be empty but allocated; free it
	// whatever the size.
	_FreeBlock();
}

int32 ZvMessageItem::Size() const
{
	return 8 + static_cast<int32>(strlen(name)) + 1 + size;
}

void ZvMessageItem::ReplaceData(int32 size, const void* data)
{
	if (size > this->size) {
		this->size = size;
		// A value that still fits inside the item stays where it was: its
		// place depends on the name only, and _NewBlock hands it out again.
		_FreeBlock();
		this->data = _NewBlock(size, strnlen(name, sizeof(name) - 1));
	}
	if (this->size >= 1 && this->data != nullptr && data != nullptr)
		memcpy(this->data, data, this->size);
}

// Single items come from the block cache (see ZvMessage.h). A message of
// many fields frees as many items at once, and the next message as large
// makes as many again; the central store keeps up to kKeptItemBytes of the
// items' class (and so of messages, which share it) rather than the usual
// 2 MiB, so that messages of up to about 200,000 fields are rebuilt from
// kept blocks instead of going through the allocator one block at a time.

namespace {

constexpr size_t kKeptItemBytes = size_t(16) << 20;

[[maybe_unused]] const bool sItemLimitRaised = [] {
	zvkit::internal::RaiseCentralLimit(sizeof(ZvMessageItem), kKeptItemBytes);
	return true;
}();

} // namespace

void* ZvMessageItem::operator new(size_t size)
{
	return zvkit::internal::AllocateBlock(size);
}

void* ZvMessageItem::operator new(size_t size, const std::nothrow_t& tag) noexcept
{
	return zvkit::internal::AllocateBlock(size, tag);
}

void ZvMessageItem::operator delete(void* block, size_t size)
{
	zvkit::internal::FreeBlock(block, size);
}

void ZvMessageItem::operator delete(void* block, const std::nothrow_t&) noexcept
{
	zvkit::internal::FreeUnsizedBlock(block);
}
