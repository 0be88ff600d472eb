// Four-character rendering of type codes, shared by both message dumps.
#include <ZvTypeCodes.h>

char* ZV_TypeCodeString(type_code code, char* buffer)
{
	int32 length = 0;
	for (int shift = 24; shift >= 0; shift -= 8) {
		const uint8 byte = static_cast<uint8>(code >> shift);
		if (byte == 0)
			break;
		buffer[length++] = (byte >= 33 && byte <= 127) ? static_cast<char>(byte) : ' ';
	}
	buffer[length] = '\0';
	return buffer;
}
