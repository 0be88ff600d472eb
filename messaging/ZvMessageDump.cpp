// Text dumps of a message and of an item on standard output.
#include <ZvMessage.h>

#include <stdio.h>

namespace {

// Each header line is formatted here before it is printed.
const size_t kLineBufferSize = 1024;

// A type code whose last character has its low four bits clear (the digit
// zero, '@', 'P', 'p', ...) breaks the data line after every byte; no code of
// the library's own table does.
bool BreaksAfterEveryByte(type_code type)
{
	const uint32 last = type & 0xFF;
	return last != 0 && (last & 0x0F) == 0;
}

} // namespace

void ZvMessageItem::PrintToStream() const
{
	char line[kLineBufferSize];
	char code[5];
	snprintf(line, sizeof(line), " ITEM: '%s', TYPE: '%s' 0x%08x, SIZE: %d\n", name,
	         ZV_TypeCodeString(type, code), static_cast<unsigned int>(type),
	         static_cast<int>(size));
	printf("%s", line);
	printf("  ");
	const bool breakEach = BreaksAfterEveryByte(type);
	for (int32 i = 0; data != nullptr && i < size; i++) {
		printf("0x%02x,", static_cast<unsigned int>(data[i]));
		if (breakEach)
			printf("\n  ");
	}
	printf("\n");
}

void ZvMessage::PrintToStream() const
{
	char line[kLineBufferSize];
	char code[5];
	snprintf(line, sizeof(line), "BEGIN WHAT: '%s' 0x%08x, COUNT: %d\n",
	         ZV_TypeCodeString(what, code), static_cast<unsigned int>(what),
	         static_cast<int>(items.CountItems()));
	printf("%s\n", line);
	for (int32 i = 0; i < items.CountItems(); i++)
		items.ItemAt(i)->PrintToStream();
	printf("END\n");
}
