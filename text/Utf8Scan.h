// Utf8Scan.h: character stepping over bounded UTF-8 byte ranges (private).
//
// The text classes find character boundaries with the lead-byte rule alone:
// the top nibble of a character's first byte gives its size (0x0-0xB one
// byte, 0xC-0xD two, 0xE three, 0xF four), so a stray continuation byte is a
// character of one byte and the bytes that follow a lead are never checked.
//
// Every function here takes the number of bytes it may look at and never
// reads beyond it. A character whose lead lies inside the range but whose
// size runs past its end (a truncated sequence before the terminator) counts
// as one character and stepping stops at the end of the range.
//
// "Well-formed" below means: every lead is followed, inside the range, by
// exactly as many continuation bytes (10xxxxxx) as its size asks for, and no
// continuation byte stands on its own. In well-formed text the character
// starts are exactly the bytes that are not continuation bytes, which is what
// lets the counting work a word at a time.
#ifndef ZVKIT_TEXT_UTF8_SCAN_H
#define ZVKIT_TEXT_UTF8_SCAN_H

#include <SupportDefs.h>

#include <stddef.h>

#include <vector>

namespace zvkit::internal {

// Size (1..4) of the character whose first byte is b, without branches:
// 0xE5000000 holds the sizes minus one, two bits per top nibble.
inline uint32 CharSize(uint8 b)
{
	return ((0xE5000000u >> ((b >> 4) * 2)) & 3) + 1;
}

inline uint32 CharSize(const char* p)
{
	return CharSize(static_cast<uint8>(*p));
}

// Number of characters that start in [text, text + n) when stepping from
// text. When wellFormed is not null it is set to whether the range is
// well-formed.
size_t CountChars(const char* text, size_t n, bool* wellFormed = nullptr);

// Steps over up to count characters from text without passing text + n.
// Returns the byte offset reached (at most n); *walked, when not null,
// receives the number of characters stepped over, and *cut whether the last
// of them was cut short by the end of the range.
size_t WalkChars(const char* text, size_t n, size_t count, size_t* walked = nullptr,
                 bool* cut = nullptr);

// Copies the n bytes at text to `to` (which must not overlap them) and
// returns CountChars(text, n), reading the bytes once: the blocks the count
// takes whole are stored from the registers that tested them.
size_t CopyCountChars(char* to, const char* text, size_t n);

// The ways of testing 64-byte blocks; CountChars takes the fastest one the
// processor has. For tests that compare them.
enum class BlockScanKind
{
	kWords,
	kAvx2,
	kAvx512
};

// The kinds this processor can run (kWords always).
std::vector<BlockScanKind> AvailableBlockScans();

// CountChars with the given kind of block test (one AvailableBlockScans
// lists); *wellFormed as CountChars sets it.
size_t CountCharsUsing(BlockScanKind kind, const char* text, size_t n, bool* wellFormed);

// CopyCountChars with the given kind of block test.
size_t CopyCountCharsUsing(BlockScanKind kind, char* to, const char* text, size_t n);

} // namespace zvkit::internal

#endif // ZVKIT_TEXT_UTF8_SCAN_H
