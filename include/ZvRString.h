// ZvRString.h: a minimal owned byte string.
//
// A ZvRString is a heap array and its byte length, with explicit operations
// to take a copy of data, append, truncate and release. It has no destructor
// and no copy operations of its own: its owner releases the storage with
// _free(), and copying the object copies the pointer, so both copies then
// refer to the same array (release it once). Lengths and indexes are bytes.
//
// data is null or an array-new buffer holding length bytes and a zero
// (setData keeps embedded zero bytes and counts them). A failed allocation
// leaves data null and is not reported.
//
// Thread safety: none inside an object; mEmpty is read-only and shared.
#ifndef _ZV_RSTRING_H
#define _ZV_RSTRING_H

#include <SupportDefs.h>

#include <ZvExport.h>

// A bare owned byte string; see the file's description.
class ZV_EXPORT ZvRString
{
public:
	// No data (null), length 0.
	ZvRString();

	// Takes a copy of s (nothing for a null s).
	void use(const char* s);
	// Takes a copy of n bytes at p, zero bytes included, and terminates it.
	void setData(const char* p, uint32 n);
	// Appends s; a null or empty s changes nothing.
	ZvRString& concat(const char* s);
	// Stores a zero at at when it lies inside the text, then re-measures the
	// length.
	void cut(char* at);
	// Byte i, or mEmpty (a zero that must not be written) at or past the end.
	char& operator[](uint32 i);
	const char& operator[](uint32 i) const;
	// Releases the data: data null, length 0.
	void _free();

	char* data;    // The bytes and a terminator, or null.
	uint32 length; // Bytes in data, without the terminator.

	// The shared zero that operator[] gives past the end; never written.
	static const char mEmpty;
};

#endif // _ZV_RSTRING_H
