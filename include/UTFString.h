// UTFString.h: UTF-8 characters and strings indexed by character.
//
// UTFChar holds one UTF-8 character (one to four bytes) inside the object.
// UTFString owns a heap copy of a zero-terminated UTF-8 byte string and
// caches its length in characters; every position and count of its
// interface is a character index, never a byte offset.
//
// Character sizes come from the first byte alone (see ZvUTF8.h):
// continuation bytes are not validated, and a stray continuation byte is a
// character of one byte. Every operation stops at the terminating zero, even
// inside a sequence truncated by it, and never reads or writes outside the
// text.
//
// Ownership: a UTFString owns its buffer (array new / array delete); Buffer()
// points into it and is valid until the next change of the string. Copies
// are deep. A string built from a null pointer has a null buffer, length 0,
// and compares unequal to everything, itself included.
//
// Thread safety: none inside an object. Operations that only read a string
// (the const ones, splitting included) may run on one object from several
// threads at once; any change needs the caller's own locking. Different
// objects are independent.
#ifndef _UTF_STRING_H
#define _UTF_STRING_H

#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvUTF8.h>

// One UTF-8 character, held inside the object.
class ZV_EXPORT UTFChar
{
public:
	// The null character.
	UTFChar();
	// Copies at most one character of s, stopping at a zero byte; a null s
	// gives the null character.
	UTFChar(const char* s);
	// A copy of other's bytes.
	UTFChar(const UTFChar& other);
	// Nothing to release: the bytes live in the object.
	virtual ~UTFChar();

	// As UTFChar(s); s may point into this character.
	UTFChar& operator=(const char* s);
	// A copy of other's bytes.
	UTFChar& operator=(const UTFChar& other);

	// Makes this the null character (all bytes zero).
	void ClearBuf();

	// True for every character whose first byte is 0x80 or above, else the
	// C library's isalnum of the first byte.
	bool IsAlphaNum() const;
	// True when the first byte is below 0x80 (the null character included).
	bool IsAscii() const;
	// True for the null character (first byte zero).
	bool IsNull() const;

	//@{
	// The character's bytes, zero-terminated; valid as long as the object.
	const char* Buffer() const { return fBytes; }
	operator const char*() const { return fBytes; }
	//@}

	//@{
	// Byte-wise equality of the texts; a null s is unequal.
	bool operator==(const char* s) const;
	bool operator==(const UTFChar& other) const;
	//@}
	//@{
	// The negation of operator==.
	bool operator!=(const char* s) const { return !(*this == s); }
	bool operator!=(const UTFChar& other) const { return !(*this == other); }
	//@}

	// Size by the lead-byte rule; the null character gives 1.
	int32 ByteLength() const;

private:
	void CopyFrom(const char* s);

	// The character's bytes followed by zeros: always terminated, since a
	// character has at most four bytes.
	char fBytes[5];
};

// A UTF-8 string indexed by character; see the file's description.
class ZV_EXPORT UTFString
{
public:
	// A buffer holding "" and length 0.
	UTFString();
	// A copy of s; a null s leaves the buffer null.
	UTFString(const char* s);
	// A string of the one character c.
	UTFString(const UTFChar& c);
	// A deep copy of other (null buffer for a null buffer).
	UTFString(const UTFString& other);
	// Frees the buffer.
	virtual ~UTFString();

	//@{
	// Replaces the text by a copy of s (or of other's text); s may point
	// into this string's own buffer.
	UTFString& operator=(const char* s);
	UTFString& operator=(const UTFString& other);
	//@}

	// Replaces characters [from, to) by s. to == from inserts before from;
	// to below from replaces up to the end; from at or past the end appends.
	void Insert(uint32 from, uint32 to, const UTFString& s);
	// The characters from index i to the end.
	UTFString StringAt(int32 i) const;
	// Removes characters [from, to) and returns the text that followed the
	// removed range. to below from returns "" and changes nothing.
	UTFString Remove(uint32 from, uint32 to);
	// The first n characters (all of them when n is too large).
	UTFString Left(uint32 n) const;
	// The last n characters, but never the first one: n at or above the
	// length gives every character but the first.
	UTFString Right(uint32 n) const;
	// Characters from start, ending at most before the last character: the
	// end start + count is capped at length - 1, so on "abc" Mid(0, 3) and
	// Mid(0, 2) are both "ab".
	UTFString Mid(uint32 start, uint32 count) const;

	// left receives characters [0, index) and right the rest (index limited
	// to the length). A null buffer leaves both untouched. left and right may
	// be this string.
	void Split(uint32 index, UTFString& left, UTFString& right) const;
	// Splits around the first occurrence of sep, which is dropped. When sep
	// is not found, left receives the whole string, right is untouched and
	// the result is false.
	bool Split(const UTFString& sep, UTFString& left, UTFString& right) const;
	// Splits before the earliest character that is one of the characters of
	// set; that character starts right. When none is found, as Split(sep).
	bool SplitChar(const UTFString& set, UTFString& left, UTFString& right) const;

	// Character index of the first occurrence of s (a byte-wise search), or
	// -1. An occurrence that starts inside a character is reported at the
	// index of the character after it.
	int32 InStr(const UTFString& s) const;
	// The same, searching from character start; the result counts from the
	// beginning. -1 when start is negative or not below the length.
	int32 InStr(int32 start, const UTFString& s) const;

	// Replaces occurrences of oldText by newText. After each replacement the
	// search resumes at the match index plus the length of oldText (not of
	// newText). Each pass keeps Left(p), then newText, then
	// Right(Length() - (oldText.Length() + p)), from the stored lengths: the
	// first pass from a length StrCat left stale, later ones from the
	// counted length of the text each pass assigns. Malformed text, patterns
	// and new texts cost one pass over the text, as well-formed ones do.
	// oldText and newText may be this string. Where the loop would never end
	// (an empty oldText with a non-empty newText, or a newText that brings
	// the pattern back at every resume point) the string is left as it is;
	// so it is where malformed text would make the loop run more passes than
	// the text has bytes, or grow past 16 times its size.
	void Replace(const UTFString& oldText, const UTFString& newText);

	//@{
	// In place; only characters whose single byte is an ASCII letter change.
	void ToUpper();
	void ToLower();
	//@}

	// The character at index; past the end, the null character (and 0).
	UTFChar GetChar(uint32 index) const;
	// The first byte of the character at index; 0 past the end or on a null
	// buffer.
	char GetChar8(uint32 index) const;
	// Insert(index, index + 1, UTFString(c)): past the end it appends.
	void SetChar(const UTFChar& c, uint32 index);

	// Counts the characters of the buffer again (after StrCat).
	void CalcLength();
	// Releases the buffer; the length is left as it was.
	void ClearBuffer();
	// Appends the bytes of s without updating the length. A null s appends
	// nothing; a null buffer counts as "".
	void StrCat(const char* s);
	// Installs a copy of s when s is not null (releasing the previous
	// buffer), then recounts.
	void CopyString(const char* s);

	//@{
	// The zero-terminated text (null for a null buffer); valid until the
	// next change of the string.
	const char* Buffer() const { return fBuffer; }
	operator const char*() const { return fBuffer; }
	//@}

	//@{
	// Byte-wise equality; false when either buffer is null.
	bool operator==(const char* s) const;
	bool operator==(const UTFString& other) const;
	//@}
	//@{
	// The negation of operator== (so true when either buffer is null).
	bool operator!=(const char* s) const { return !(*this == s); }
	bool operator!=(const UTFString& other) const { return !(*this == other); }
	//@}

	//@{
	// Appends s (or other's text) and updates the length. On a null buffer,
	// as the matching operator=; a null other text changes nothing.
	UTFString& operator+=(const char* s);
	UTFString& operator+=(const UTFString& other);
	//@}

	// The length in characters, as last counted (StrCat does not count).
	uint32 Length() const { return fLength; }
	// The length in bytes, without the terminator; 0 for a null buffer.
	uint32 ByteLength() const;

private:
	void Adopt(char* buffer, size_t byteLength);
	void AssignBytes(const char* bytes, size_t byteLength);
	size_t ByteOffsetOf(uint32 index) const;
	bool ReplaceInStep(const UTFString& pattern, const UTFString& replacement);
	void ReplacePasses(const UTFString& next, const UTFString& pattern, uint32 oldChars,
	                   const UTFString& replacement, uint32 resume, size_t originalBytes);

	char* fBuffer;
	uint32 fLength;
	// False after StrCat, which leaves the length to its caller: appending
	// then counts the whole text again instead of adding to a stale count.
	bool fLengthExact;
};

// A new string: a's text followed by b's, as UTFString(a) += b.
ZV_EXPORT UTFString operator+(const UTFString& a, const UTFString& b);

#endif // _UTF_STRING_H
