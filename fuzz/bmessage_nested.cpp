// Fuzz target: arbitrary bytes stored as a nested message field of a
// platform BMessage and read back with FindMessage. The reader must refuse
// malformed bytes (leaving the message empty) and rebuild well-formed ones
// so that they flatten back to the same bytes.

#include <Message.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
	if (size == 0 || size > 1 << 20)
		return 0;
	BMessage outer;
	if (outer.AddData("m", B_MESSAGE_TYPE, data, static_cast<ssize_t>(size), false) != B_OK)
		__builtin_trap();

	BMessage inner(0x4B454550); // 'KEEP'
	inner.AddInt32("old", 1);
	const status_t status = outer.FindMessage("m", &inner);
	if (status != B_OK) {
		// A refused block leaves nothing behind.
		if (status != B_BAD_DATA || !inner.IsEmpty() || inner.what != 0)
			__builtin_trap();
		return 0;
	}

	// Walk every field and item of the rebuilt message.
	char* name = nullptr;
	type_code type = 0;
	int32 count = 0;
	for (int32 i = 0; inner.GetInfo(B_ANY_TYPE, i, &name, &type, &count) == B_OK; i++) {
		for (int32 j = 0; j < count; j++) {
			const void* item = nullptr;
			ssize_t itemSize = 0;
			if (inner.FindData(name, type, j, &item, &itemSize) != B_OK || itemSize <= 0)
				__builtin_trap();
		}
	}

	// Well-formed bytes flatten back to themselves.
	BMessage again;
	if (again.AddMessage("m", &inner) != B_OK)
		__builtin_trap();
	const void* flat = nullptr;
	ssize_t flatSize = 0;
	if (again.FindData("m", B_MESSAGE_TYPE, &flat, &flatSize) != B_OK ||
	    static_cast<size_t>(flatSize) != size || std::memcmp(flat, data, size) != 0)
		__builtin_trap();
	return 0;
}
