// Utf8Scan.cpp: character counting and stepping over bounded byte ranges.
//
// Counting works eight bytes at a time where it can. Within a word that
// begins at a character start, the bytes that must be continuation bytes
// (the ones covered by a lead in the same word) are computed with shifts and
// compared with the bytes that are continuation bytes. When the two sets
// agree, the character starts in the word are exactly its non-continuation
// bytes, and the last character may run a few bytes past the word (the
// "spill"), which the next step skips. When they disagree the text is not
// well-formed there, and those bytes are stepped one character at a time, so
// the count always equals the number of steps of the byte-wise walk.
#include "Utf8Scan.h"

#include <string.h>

namespace zvtext {

namespace {

const uint64 kHighBits = 0x8080808080808080ull;
const uint64 kByteOnes = 0x0101010101010101ull;

// Eight bytes in memory order, the first one in the low byte.
inline uint64 LoadWord(const char* p)
{
	uint64 word;
	memcpy(&word, p, sizeof(word));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
	word = __builtin_bswap64(word);
#endif
	return word;
}

// Number of bytes whose bit 7 is set in a mask that has no other bits.
inline uint32 CountFlags(uint64 mask)
{
	return static_cast<uint32>(((mask >> 7) * kByteOnes) >> 56);
}

inline bool IsContinuation(char c)
{
	return (static_cast<uint8>(c) & 0xC0) == 0x80;
}

// Examines a word that begins at a character start. Returns false when its
// bytes do not follow the lead structure. Otherwise *starts receives the
// number of characters that start in the word and *spill the number of bytes
// (0..3) by which the last of them runs past it.
inline bool ScanWord(uint64 word, uint32* starts, uint32* spill)
{
	const uint64 bit7 = word & kHighBits;
	const uint64 bit6 = (word << 1) & kHighBits;
	const uint64 bit5 = (word << 2) & kHighBits;
	const uint64 bit4 = (word << 3) & kHighBits;
	const uint64 continuation = bit7 & ~bit6;
	const uint64 lead2 = bit7 & bit6;  // 0xC0-0xFF: covers the next byte
	const uint64 lead3 = lead2 & bit5; // 0xE0-0xFF: and the one after
	const uint64 lead4 = lead3 & bit4; // 0xF0-0xFF: and a third one
	const uint64 covered = (lead2 << 8) | (lead3 << 16) | (lead4 << 24);
	if (covered != continuation)
		return false;
	*starts = 8 - CountFlags(continuation);
	*spill = CountFlags((lead2 >> 56) | (lead3 >> 48) | (lead4 >> 40));
	return true;
}

// Whether the character that starts at text[i] is complete and followed by
// the right continuation bytes inside [text, text + n).
inline bool CharIsWellFormed(const char* text, size_t n, size_t i, uint32 size)
{
	if (IsContinuation(text[i]))
		return false;
	if (i + size > n)
		return false;
	for (uint32 k = 1; k < size; k++) {
		if (!IsContinuation(text[i + k]))
			return false;
	}
	return true;
}

template <bool kCheck> size_t CountCharsImpl(const char* text, size_t n, bool* wellFormed)
{
	size_t i = 0;
	size_t count = 0;
	bool ok = true;
	while (i + 8 <= n) {
		const uint64 word = LoadWord(text + i);
		if ((word & kHighBits) == 0) {
			// ASCII: run ahead 32 bytes at a time while it lasts.
			count += 8;
			i += 8;
			while (i + 32 <= n) {
				const uint64 any = LoadWord(text + i) | LoadWord(text + i + 8) |
				                   LoadWord(text + i + 16) | LoadWord(text + i + 24);
				if ((any & kHighBits) != 0)
					break;
				count += 32;
				i += 32;
			}
			continue;
		}
		uint32 starts;
		uint32 spill;
		if (ScanWord(word, &starts, &spill)) {
			if (kCheck && spill != 0) {
				// The bytes inside the word were checked above; the ones the
				// last character runs into must be there and continue it.
				if (i + 8 + spill > n) {
					ok = false;
				} else {
					for (uint32 k = 0; k < spill; k++)
						ok = ok && IsContinuation(text[i + 8 + k]);
				}
			}
			count += starts;
			i += 8 + spill;
			continue;
		}
		// Not well-formed here: step these bytes one character at a time.
		const size_t end = i + 8;
		while (i < end) {
			const uint32 size = CharSize(text + i);
			if (kCheck)
				ok = ok && CharIsWellFormed(text, n, i, size);
			count++;
			i += size;
		}
	}
	while (i < n) {
		const uint32 size = CharSize(text + i);
		if (kCheck)
			ok = ok && CharIsWellFormed(text, n, i, size);
		count++;
		i += size;
	}
	if (wellFormed != NULL)
		*wellFormed = ok;
	return count;
}

} // namespace

size_t CountChars(const char* text, size_t n, bool* wellFormed)
{
	if (wellFormed != NULL)
		return CountCharsImpl<true>(text, n, wellFormed);
	return CountCharsImpl<false>(text, n, NULL);
}

size_t WalkChars(const char* text, size_t n, size_t count, size_t* walked, bool* cut)
{
	size_t i = 0;
	size_t done = 0;
	while (done < count && i < n) {
		if (i + 8 <= n && count - done >= 8) {
			const uint64 word = LoadWord(text + i);
			if ((word & kHighBits) == 0) {
				i += 8;
				done += 8;
				continue;
			}
			uint32 starts;
			uint32 spill;
			if (ScanWord(word, &starts, &spill)) {
				i += 8 + spill;
				done += starts;
				continue;
			}
		}
		i += CharSize(text + i);
		done++;
	}
	if (cut != NULL)
		*cut = i > n;
	if (i > n)
		i = n;
	if (walked != NULL)
		*walked = done;
	return i;
}

} // namespace zvtext
