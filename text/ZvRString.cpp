// ZvRString.cpp: the minimal owned byte string.
//
// Allocations use the non-throwing array new: a failed one leaves data null,
// which is the documented state, and is not repaired.
#include <ZvRString.h>

#include <stdint.h>
#include <string.h>

#include <new>

const char ZvRString::mEmpty = 0;

ZvRString::ZvRString() : data(nullptr), length(0) {}

void ZvRString::use(const char* s)
{
	// s may lie in the current data: copy before releasing it.
	char* copy = nullptr;
	uint32 size = 0;
	if (s != nullptr) {
		size = static_cast<uint32>(strlen(s));
		copy = new (std::nothrow) char[size + 1];
		if (copy != nullptr)
			memcpy(copy, s, size + 1);
	}
	_free();
	if (s != nullptr) {
		length = size;
		data = copy;
	}
}

void ZvRString::setData(const char* p, uint32 n)
{
	char* copy = nullptr;
	if (p != nullptr && n != 0) {
		copy = new (std::nothrow) char[static_cast<size_t>(n) + 1];
		if (copy != nullptr) {
			memcpy(copy, p, n);
			copy[n] = '\0';
		}
	}
	_free();
	if (copy != nullptr) {
		data = copy;
		length = n;
	}
}

ZvRString& ZvRString::concat(const char* s)
{
	if (s == nullptr || *s == '\0')
		return *this;
	if (data == nullptr || length == 0) {
		use(s);
		return *this;
	}
	// The old text is taken up to its first zero, as a C string.
	char* old = data;
	const size_t oldSize = strlen(old);
	const size_t added = strlen(s);
	data = new (std::nothrow) char[static_cast<size_t>(length) + added + 1];
	if (data != nullptr) {
		memcpy(data, old, oldSize);
		memcpy(data + oldSize, s, added);
		data[oldSize + added] = '\0';
		length = static_cast<uint32>(oldSize + added);
	}
	delete[] old;
	return *this;
}

void ZvRString::cut(char* at)
{
	if (data == nullptr) {
		length = 0;
		return;
	}
	const uintptr_t first = reinterpret_cast<uintptr_t>(data);
	const uintptr_t position = reinterpret_cast<uintptr_t>(at);
	if (length > 0 && position >= first && position < first + length)
		*at = '\0';
	length = static_cast<uint32>(strlen(data));
}

char& ZvRString::operator[](uint32 i)
{
	if (data != nullptr && i < length)
		return data[i];
	// Read-only storage: callers must not write through this reference.
	return const_cast<char&>(mEmpty);
}

const char& ZvRString::operator[](uint32 i) const
{
	if (data != nullptr && i < length)
		return data[i];
	return mEmpty;
}

void ZvRString::_free()
{
	delete[] data;
	data = nullptr;
	length = 0;
}
