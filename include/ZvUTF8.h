// ZvUTF8.h: UTF-8 stepping functions and the reference conversion tables.
//
// Free functions with C linkage that step through UTF-8 byte strings, make
// 8-bit text safe for UTF-8 consumers and sort a character into a coarse
// script class. They work on raw byte pointers, never allocate and keep no
// state, so every one of them may be called from any thread.
//
// A character's size comes from its first byte alone: top nibble 0x0-0xB
// (ASCII and continuation bytes) one byte, 0xC-0xD two, 0xE three, 0xF four.
// Continuation bytes are not validated. The stepping functions do not look
// for the terminating zero beyond what each one states; callers keep their
// own end bounds.
//
// The three tables carry the values of the Unicode consortium's reference
// conversion code. Nothing in the library reads them; they are read-only
// data for clients.
#ifndef _ZV_UTF8_H
#define _ZV_UTF8_H

#include <SupportDefs.h>

#include <ZvExport.h>

#ifdef __cplusplus
extern "C" {
#endif

// Subtracted after summing the bytes of a sequence of 1..6 bytes.
ZV_EXPORT extern const uint32 offsetFromUTF8[6];
// Number of trailing bytes after a lead byte, indexed by the byte.
ZV_EXPORT extern const int32 bytesFromUTF8[256];
// Mark OR-ed into the first byte of an n-byte sequence.
ZV_EXPORT extern const uint8 firstByteMark[7];

// Byte length (1..4) of the character whose first byte is *p.
ZV_EXPORT int32 kx_utf8_size(const char* p);

// Byte length (1..4) of the character that ends just before p, or 0 when
// none can be found without reading before start.
ZV_EXPORT int32 kx_utf8_previous_size(const char* p, const char* start);

// The character after the one at p. A continuation byte gives p itself (a
// loop over this function must guard against standing still); a zero byte
// is ASCII and gives p + 1.
ZV_EXPORT const char* kx_utf8_next(const char* p);

// The first byte of the character before p, or nullptr when start is reached.
// With four bytes available and no four-byte lead at p - 4 it gives p.
ZV_EXPORT const char* kx_utf8_previous(const char* p, const char* start);

// Copies src into dst, replacing every byte 0x80-0xFF by a space, and
// terminates dst. dst needs strlen(src) + 1 bytes; it may be src itself.
ZV_EXPORT void convert_ascii_to_utf8(const char* src, char* dst);

// Class of the character at p: 0 unknown, 1 white space, 2 punctuation,
// 3 ASCII letter, digit or control character and every two-byte character,
// 4 enclosed CJK letters, 5 half-width/full-width forms, 6 Hiragana,
// 7 Katakana, 8 CJK ideographs. Three-byte characters are matched through a
// key read in the machine's byte order, so on a little-endian machine they
// give 0 (or 1/2 for a lead byte the C library calls space/punctuation).
ZV_EXPORT uint32 unicode_range(const char* p);

#ifdef __cplusplus
}
#endif

#endif // _ZV_UTF8_H
