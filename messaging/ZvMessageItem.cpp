// ZvMessageItem: one named, typed value held as an owned byte block.
#include <ZvMessage.h>

#include "FlatFormat.h"
#include "base/internal/BlockCache.h"

#include <string.h>

namespace {

const char kUnnamed[] = "@@@Unnamed";

// Copies name into the item's buffer, cut to 63 characters.
void CopyName(char* buffer, const char* name)
{
	if (name == nullptr)
		name = kUnnamed;
	size_t length = strnlen(name, zvkit::internal::kNameBufferSize - 1);
	memcpy(buffer, name, length);
	buffer[length] = '\0';
}

} // namespace

ZvMessageItem::ZvMessageItem() : type(0), size(0), data(nullptr)
{
	CopyName(name, nullptr);
}

ZvMessageItem::ZvMessageItem(const char* name, type_code type, int32 size, const void* data)
    : type(type), size(size), data(nullptr)
{
	CopyName(this->name, name);
	if (size >= 1) {
		this->data = _NewBlock(size);
		if (data != nullptr)
			memcpy(this->data, data, size);
		else
			memset(this->data, 0, size);
	}
}

ZvMessageItem::ZvMessageItem(const ZvMessageItem* other)
    : type(other->type), size(other->size), data(nullptr)
{
	memcpy(name, other->name, sizeof(name));
	if (size >= 1 && other->data != nullptr) {
		data = _NewBlock(size);
		memcpy(data, other->data, size);
	}
}

ZvMessageItem::~ZvMessageItem()
{
	// A block read from a flat record may be empty but allocated; free it
	// whatever the size.
	_FreeBlock();
}

uint8* ZvMessageItem::_NewBlock(int32 length)
{
	if (length <= kInlineDataSize)
		return fInlineData;
	return new uint8[length];
}

void ZvMessageItem::_FreeBlock()
{
	if (data != fInlineData)
		delete[] data;
	data = nullptr;
}

int32 ZvMessageItem::Size() const
{
	return 8 + static_cast<int32>(strlen(name)) + 1 + size;
}

void ZvMessageItem::ReplaceData(int32 size, const void* data)
{
	if (size > this->size) {
		this->size = size;
		// A value that still fits the inline buffer stays there: _NewBlock
		// hands the buffer out again.
		_FreeBlock();
		this->data = _NewBlock(size);
	}
	if (this->size >= 1 && this->data != nullptr && data != nullptr)
		memcpy(this->data, data, this->size);
}

// Single items come from the block cache (see ZvMessage.h).

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
