// ZvUTF8.cpp: UTF-8 stepping functions, the reference tables and the script
// classification.
#include <ZvUTF8.h>

#include "Utf8Scan.h"

#include <ctype.h>
#include <string.h>

extern "C" {

const uint32 offsetFromUTF8[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                  0x03C82080u, 0xFA082080u, 0x82082080u};

const int32 bytesFromUTF8[256] = {
    // 0x00-0xBF: ASCII and continuation bytes.
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    // 0xC0-0xDF: two-byte leads.
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
    // 0xE0-0xEF three-byte, 0xF0-0xF7 four-byte, 0xF8-0xFB five-byte,
    // 0xFC-0xFF six-byte leads.
    2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5};

const uint8 firstByteMark[7] = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};

} // extern "C"

namespace {

inline bool IsAsciiByte(uint8 b)
{
	return static_cast<int8>(b) >= 0;
}

// The classification of bytes 0x80-0xFF is that of the C locale (neither
// space nor punctuation) whatever locale the process runs in, so the class of
// a character never depends on the environment.
inline bool ClassifiesAsSpace(uint8 b)
{
	return IsAsciiByte(b) && isspace(b) != 0;
}

inline bool ClassifiesAsPunctuation(uint8 b)
{
	return IsAsciiByte(b) && ispunct(b) != 0;
}

struct KeyRange
{
	uint32 low;
	uint32 high;
	uint32 range;
};

// Bounds written for the sequence read with its first byte most significant.
const KeyRange kKeyRanges[] = {
    {0xE2808000u, 0xE281AF00u, 2}, // general punctuation
    {0xE3808000u, 0xE380BF00u, 2}, // CJK symbols and punctuation
    {0xE3888000u, 0xE38BBF00u, 4}, // enclosed CJK letters and months
    {0xEFBC8000u, 0xEFBFAF00u, 5}, // half-width and full-width forms
    {0xE3818000u, 0xE3829F00u, 6}, // Hiragana
    {0xE382A000u, 0xE383BF00u, 7}, // Katakana
    {0xE4B88000u, 0xE9BFBF00u, 8}, // CJK unified ideographs
    {0xEFA48000u, 0xEFABBF00u, 8}, // CJK compatibility ideographs
};

} // namespace

int32 kx_utf8_size(const char* p)
{
	return static_cast<int32>(zvkit::internal::CharSize(p));
}

int32 kx_utf8_previous_size(const char* p, const char* start)
{
	if (p == start)
		return 0;
	if (IsAsciiByte(static_cast<uint8>(p[-1])))
		return 1;
	if (p - 1 == start)
		return 0;
	if ((static_cast<uint8>(p[-2]) & 0xE0) == 0xC0)
		return 2;
	if (p - 2 == start)
		return 0;
	if ((static_cast<uint8>(p[-3]) & 0xF0) == 0xE0)
		return 3;
	if (p - 3 == start)
		return 0;
	if ((static_cast<uint8>(p[-4]) & 0xF0) == 0xF0)
		return 4;
	return 0;
}

const char* kx_utf8_previous(const char* p, const char* start)
{
	if (p == start)
		return nullptr;
	if (IsAsciiByte(static_cast<uint8>(p[-1])))
		return p - 1;
	if (p - 1 == start)
		return nullptr;
	if ((static_cast<uint8>(p[-2]) & 0xE0) == 0xC0)
		return p - 2;
	if (p - 2 == start)
		return nullptr;
	if ((static_cast<uint8>(p[-3]) & 0xF0) == 0xE0)
		return p - 3;
	if (p - 3 == start)
		return nullptr;
	if ((static_cast<uint8>(p[-4]) & 0xF0) == 0xF0)
		return p - 4;
	// No lead found within reach: no step at all (unlike the size, which
	// reports 0 here).
	return p;
}

const char* kx_utf8_next(const char* p)
{
	const uint8 b = static_cast<uint8>(*p);
	if (IsAsciiByte(b))
		return p + 1;
	if ((b & 0xE0) == 0xC0)
		return p + 2;
	if ((b & 0xF0) == 0xE0)
		return p + 3;
	if ((b & 0xF0) == 0xF0)
		return p + 4;
	return p;
}

void convert_ascii_to_utf8(const char* src, char* dst)
{
	// Byte by byte, so dst may be src itself.
	for (; *src != '\0'; src++, dst++)
		*dst = IsAsciiByte(static_cast<uint8>(*src)) ? *src : ' ';
	*dst = '\0';
}

uint32 unicode_range(const char* p)
{
	const uint8 first = static_cast<uint8>(p[0]);
	if (IsAsciiByte(first)) {
		if (ClassifiesAsSpace(first))
			return 1;
		if (ClassifiesAsPunctuation(first))
			return 2;
		return 3;
	}
	if ((first & 0xE0) == 0xC0)
		return 3;
	if ((first & 0xF0) == 0xF0)
		return 0;

	// A three-byte lead (or a stray continuation byte, which keeps the key
	// at 0). The sequence's bytes go into the key in memory order and the key
	// is read back natively; copying stops at a terminating zero.
	uint32 key = 0;
	if ((first & 0xF0) == 0xE0) {
		uint8 bytes[4] = {first, 0, 0, 0};
		for (int i = 1; i < 3 && p[i - 1] != '\0'; i++)
			bytes[i] = static_cast<uint8>(p[i]);
		memcpy(&key, bytes, sizeof(key));
	}
	if (ClassifiesAsSpace(first))
		return 1;
	if (ClassifiesAsPunctuation(first))
		return 2;
	for (const KeyRange& row : kKeyRanges) {
		if (key >= row.low && key <= row.high)
			return row.range;
	}
	return 0;
}
