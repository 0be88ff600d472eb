// UTFString.cpp: UTF-8 characters and character-indexed strings.
//
// Every edit builds a new buffer from byte ranges of the old one and then
// installs it, so an argument may alias the string being changed. Character
// positions are turned into byte offsets by stepping from the start of the
// buffer within its measured byte length, which keeps every read inside the
// text even where a truncated sequence meets the terminator.
#include <UTFString.h>

#include "Utf8Scan.h"
#include "base/internal/Checks.h"

#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <utility>

using zvkit::internal::CharSize;
using zvkit::internal::CopyCountChars;
using zvkit::internal::CountChars;
using zvkit::internal::WalkChars;

namespace {

// A growing byte array released to its new owner as a terminated array-new
// buffer.
class ByteBuilder
{
public:
	explicit ByteBuilder(size_t capacity)
	    : fData(new char[capacity + 1]), fSize(0), fCapacity(capacity)
	{
	}

	~ByteBuilder() { delete[] fData; }

	ByteBuilder(const ByteBuilder&) = delete;
	ByteBuilder& operator=(const ByteBuilder&) = delete;

	void Append(const char* bytes, size_t count)
	{
		if (count == 0)
			return;
		if (fSize + count > fCapacity) {
			const size_t capacity = std::max(fSize + count, fCapacity * 2);
			char* data = new char[capacity + 1];
			memcpy(data, fData, fSize);
			delete[] fData;
			fData = data;
			fCapacity = capacity;
		}
		memcpy(fData + fSize, bytes, count);
		fSize += count;
	}

	size_t Size() const { return fSize; }

	char* Release()
	{
		fData[fSize] = '\0';
		char* data = fData;
		fData = nullptr;
		return data;
	}

private:
	char* fData;
	size_t fSize;
	size_t fCapacity;
};

inline size_t SafeLength(const char* s)
{
	return s != nullptr ? strlen(s) : 0;
}

// Whether the character walk of [text, text + n) ends exactly at its end, so
// bytes appended later start a character of their own. It does when none of
// the last three bytes is a lead that reaches past the end.
inline bool EndsOnBoundary(const char* text, size_t n)
{
	for (size_t k = 1; k <= 3 && k <= n; k++) {
		if (CharSize(text + n - k) > k)
			return false;
	}
	return true;
}

// First occurrence of pattern in [from, end), or nullptr. The range is searched
// in windows that grow from a few hundred bytes, so a search that finds its
// match early touches (and has checked, under a memory checker) little more
// than the bytes up to it, and a loop of searches stays linear.
const char* FindBytes(const char* from, const char* end, const char* pattern, size_t patternBytes)
{
	if (patternBytes <= 16) {
		// A short pattern: find its first byte, then compare the rest (no
		// set-up per search, which matters when matches are close).
		const char first = pattern[0];
		while (static_cast<size_t>(end - from) >= patternBytes) {
			const char* candidate =
			    static_cast<const char*>(memchr(from, first, (end - from) - (patternBytes - 1)));
			if (candidate == nullptr)
				return nullptr;
			if (patternBytes == 1 || memcmp(candidate + 1, pattern + 1, patternBytes - 1) == 0)
				return candidate;
			from = candidate + 1;
		}
		return nullptr;
	}
	size_t window = std::max<size_t>(256, 2 * patternBytes);
	while (static_cast<size_t>(end - from) >= patternBytes) {
		const size_t span = std::min(window, static_cast<size_t>(end - from));
		const void* hit = memmem(from, span, pattern, patternBytes);
		if (hit != nullptr)
			return static_cast<const char*>(hit);
		if (span == static_cast<size_t>(end - from))
			return nullptr;
		// The next window overlaps this one by one byte less than the
		// pattern, so no occurrence straddling the border is missed.
		from += span - (patternBytes - 1);
		window = std::min<size_t>(window * 2, 1 << 16);
	}
	return nullptr;
}

// The offset of the first character start at or after offset in [text,
// text + n), walking from text (n when that character runs past the end).
// Matches usually lie a few bytes apart, where one plain step at a time is
// quicker than setting up the block walk.
inline size_t FirstStartFrom(const char* text, size_t n, size_t offset)
{
	if (offset >= 64)
		return WalkChars(text, n, CountChars(text, offset));
	// ASCII bytes are characters of their own: the offset is a start.
	uint8 high = 0;
	for (size_t k = 0; k < offset; k++)
		high |= static_cast<uint8>(text[k]);
	if (high < 0x80)
		return offset;
	size_t i = 0;
	while (i < offset)
		i += CharSize(text + i);
	return std::min(i, n);
}

// WalkChars for the few characters of a pattern.
inline size_t StepChars(const char* text, size_t n, uint32 count, size_t* walked)
{
	if (count >= 16)
		return WalkChars(text, n, count, walked);
	size_t i = 0;
	uint32 done = 0;
	for (; done < count && i < n; done++)
		i += CharSize(text + i);
	*walked = done;
	return std::min(i, n);
}

// The general path's limit on the size of the text: a loop that grows it
// beyond 16 times its size and that of the new text, plus 64 KiB, leaves the
// string as it is (as does one that needs more passes than the text has
// bytes, plus one).
inline size_t MaxReplaceBytes(size_t textBytes, const char* with)
{
	return 65536 + 16 * (textBytes + strlen(with));
}

// Checked mode: a Replace whose loop would not end is left undone.
void ReportEndlessReplace(const char* why)
{
	if (zvkit::internal::ChecksOn()) {
		zvkit::internal::CheckReport("UTFString::Replace", "%s; the string is left as it is", why);
	}
}

} // namespace

// #pragma mark - UTFChar

UTFChar::UTFChar()
{
	ClearBuf();
}

UTFChar::UTFChar(const char* s)
{
	CopyFrom(s);
}

UTFChar::UTFChar(const UTFChar& other)
{
	ClearBuf();
	strcpy(fBytes, other.fBytes);
}

UTFChar::~UTFChar() {}

UTFChar& UTFChar::operator=(const char* s)
{
	CopyFrom(s);
	return *this;
}

UTFChar& UTFChar::operator=(const UTFChar& other)
{
	if (*this == other)
		return *this;
	ClearBuf();
	strcpy(fBytes, other.fBytes);
	return *this;
}

void UTFChar::CopyFrom(const char* s)
{
	// s may point into this character's own bytes: read it first.
	char bytes[5] = {0, 0, 0, 0, 0};
	if (s != nullptr) {
		const uint32 size = CharSize(s);
		for (uint32 i = 0; i < size && s[i] != '\0'; i++)
			bytes[i] = s[i];
	}
	memcpy(fBytes, bytes, sizeof(fBytes));
}

void UTFChar::ClearBuf()
{
	memset(fBytes, 0, sizeof(fBytes));
}

bool UTFChar::IsAlphaNum() const
{
	const uint8 first = static_cast<uint8>(fBytes[0]);
	if (first >= 0x80)
		return true;
	return isalnum(first) != 0;
}

bool UTFChar::IsAscii() const
{
	return static_cast<uint8>(fBytes[0]) < 0x80;
}

bool UTFChar::IsNull() const
{
	return fBytes[0] == '\0';
}

bool UTFChar::operator==(const char* s) const
{
	return s != nullptr && strcmp(fBytes, s) == 0;
}

bool UTFChar::operator==(const UTFChar& other) const
{
	return strcmp(fBytes, other.fBytes) == 0;
}

int32 UTFChar::ByteLength() const
{
	return static_cast<int32>(CharSize(fBytes));
}

// #pragma mark - UTFString

UTFString::UTFString() : fBuffer(nullptr), fLength(0), fLengthExact(true)
{
	AssignBytes("", 0);
}

UTFString::UTFString(const char* s) : fBuffer(nullptr), fLength(0), fLengthExact(true)
{
	CopyString(s);
}

UTFString::UTFString(const UTFChar& c) : fBuffer(nullptr), fLength(0), fLengthExact(true)
{
	CopyString(c.Buffer());
}

UTFString::UTFString(const UTFString& other) : fBuffer(nullptr), fLength(0), fLengthExact(true)
{
	CopyString(other.fBuffer);
}

UTFString::~UTFString()
{
	ClearBuffer();
}

UTFString& UTFString::operator=(const char* s)
{
	if (s == nullptr) {
		ClearBuffer();
		CalcLength();
	} else {
		AssignBytes(s, strlen(s));
	}
	return *this;
}

UTFString& UTFString::operator=(const UTFString& other)
{
	if (fBuffer == other.fBuffer)
		return *this;
	return *this = other.fBuffer;
}

void UTFString::Adopt(char* buffer, size_t byteLength)
{
	delete[] fBuffer;
	fBuffer = buffer;
	fLength = static_cast<uint32>(CountChars(buffer, byteLength));
	fLengthExact = true;
}

void UTFString::AssignBytes(const char* bytes, size_t byteLength)
{
	// Copy before releasing: bytes may lie in the current buffer.
	// The copy and the count share one pass over the bytes.
	char* buffer = new char[byteLength + 1];
	const size_t length = CopyCountChars(buffer, bytes, byteLength);
	buffer[byteLength] = '\0';
	delete[] fBuffer;
	fBuffer = buffer;
	fLength = static_cast<uint32>(length);
	fLengthExact = true;
}

size_t UTFString::ByteOffsetOf(uint32 index) const
{
	return WalkChars(fBuffer, strlen(fBuffer), index);
}

void UTFString::CalcLength()
{
	fLength = fBuffer != nullptr ? static_cast<uint32>(CountChars(fBuffer, strlen(fBuffer))) : 0;
	fLengthExact = true;
}

void UTFString::ClearBuffer()
{
	delete[] fBuffer;
	fBuffer = nullptr;
}

void UTFString::StrCat(const char* s)
{
	if (s == nullptr)
		return;
	const size_t ownLength = SafeLength(fBuffer);
	const size_t addedLength = strlen(s);
	char* buffer = new char[ownLength + addedLength + 1];
	if (ownLength != 0)
		memcpy(buffer, fBuffer, ownLength);
	// s may lie in the current buffer, which is released only afterwards.
	memcpy(buffer + ownLength, s, addedLength);
	buffer[ownLength + addedLength] = '\0';
	delete[] fBuffer;
	fBuffer = buffer;
	fLengthExact = false;
}

void UTFString::CopyString(const char* s)
{
	if (s != nullptr)
		AssignBytes(s, strlen(s));
	else
		CalcLength();
}

uint32 UTFString::ByteLength() const
{
	return static_cast<uint32>(SafeLength(fBuffer));
}

bool UTFString::operator==(const char* s) const
{
	return fBuffer != nullptr && s != nullptr && strcmp(fBuffer, s) == 0;
}

bool UTFString::operator==(const UTFString& other) const
{
	return fBuffer != nullptr && other.fBuffer != nullptr && strcmp(fBuffer, other.fBuffer) == 0;
}

UTFString& UTFString::operator+=(const char* s)
{
	if (fBuffer == nullptr)
		return *this = s;
	if (s == nullptr)
		return *this;
	const size_t ownLength = strlen(fBuffer);
	const size_t addedLength = strlen(s);
	// When the own text ends on a character boundary the appended bytes only
	// add their own characters; otherwise the whole text is counted again.
	const bool additive = fLengthExact && EndsOnBoundary(fBuffer, ownLength);
	const uint32 added = additive ? static_cast<uint32>(CountChars(s, addedLength)) : 0;
	StrCat(s);
	if (additive)
		fLength += added;
	else
		CalcLength();
	return *this;
}

UTFString& UTFString::operator+=(const UTFString& other)
{
	if (fBuffer == nullptr)
		return *this = other;
	if (other.fBuffer == nullptr)
		return *this;
	return *this += other.fBuffer;
}

UTFString operator+(const UTFString& a, const UTFString& b)
{
	UTFString result(a);
	result += b;
	return result;
}

void UTFString::Split(uint32 index, UTFString& left, UTFString& right) const
{
	if (fBuffer == nullptr)
		return;
	const size_t total = strlen(fBuffer);
	const size_t offset = WalkChars(fBuffer, total, std::min(index, fLength));
	// Both parts are made before either output is touched: left or right
	// may be this string.
	UTFString head(nullptr);
	UTFString tail(nullptr);
	head.AssignBytes(fBuffer, offset);
	tail.AssignBytes(fBuffer + offset, total - offset);
	std::swap(left.fBuffer, head.fBuffer);
	left.fLength = head.fLength;
	left.fLengthExact = true;
	std::swap(right.fBuffer, tail.fBuffer);
	right.fLength = tail.fLength;
	right.fLengthExact = true;
}

UTFString UTFString::Left(uint32 n) const
{
	UTFString result;
	if (fBuffer != nullptr)
		result.AssignBytes(fBuffer, ByteOffsetOf(std::min(n, fLength)));
	return result;
}

UTFString UTFString::Right(uint32 n) const
{
	// The count is capped at length - 1 (wrapping on an empty string), so
	// the first character is never part of the result.
	const uint32 count = std::min(n, fLength - 1);
	return StringAt(static_cast<int32>(fLength - count));
}

UTFString UTFString::StringAt(int32 i) const
{
	UTFString result;
	if (fBuffer != nullptr) {
		const size_t total = strlen(fBuffer);
		const size_t offset = WalkChars(fBuffer, total, std::min(static_cast<uint32>(i), fLength));
		result.AssignBytes(fBuffer + offset, total - offset);
	}
	return result;
}

UTFString UTFString::Mid(uint32 start, uint32 count) const
{
	UTFString result;
	if (fBuffer == nullptr)
		return result;
	const uint32 last = fLength - 1;
	const uint32 first = std::min(start, last);
	uint32 end = start + count;
	if (end >= fLength)
		end = last;
	if (first > end)
		return result;
	const size_t total = strlen(fBuffer);
	const size_t from = WalkChars(fBuffer, total, std::min(first, fLength));
	const size_t to = from + WalkChars(fBuffer + from, total - from, end - first);
	result.AssignBytes(fBuffer + from, to - from);
	return result;
}

void UTFString::Insert(uint32 from, uint32 to, const UTFString& s)
{
	if (fBuffer == nullptr) {
		*this = s;
		return;
	}
	const size_t total = strlen(fBuffer);
	const size_t head = WalkChars(fBuffer, total, std::min(from, fLength));
	// to below from wraps to a large count and so reaches the end.
	const size_t tail = head + WalkChars(fBuffer + head, total - head, to - from);
	const size_t inserted = SafeLength(s.fBuffer);
	ByteBuilder text(head + inserted + (total - tail));
	text.Append(fBuffer, head);
	text.Append(s.fBuffer, inserted);
	text.Append(fBuffer + tail, total - tail);
	const size_t size = text.Size();
	Adopt(text.Release(), size);
}

UTFString UTFString::Remove(uint32 from, uint32 to)
{
	UTFString rest;
	if (fBuffer == nullptr || to < from)
		return rest;
	const size_t total = strlen(fBuffer);
	size_t before;
	const size_t tail = WalkChars(fBuffer, total, std::min(to, fLength), &before);
	const size_t head = WalkChars(fBuffer, tail, std::min(from, static_cast<uint32>(before)));
	rest.AssignBytes(fBuffer + tail, total - tail);
	ByteBuilder text(head + (total - tail));
	text.Append(fBuffer, head);
	text.Append(fBuffer + tail, total - tail);
	const size_t size = text.Size();
	Adopt(text.Release(), size);
	return rest;
}

bool UTFString::Split(const UTFString& sep, UTFString& left, UTFString& right) const
{
	if (fBuffer == nullptr)
		return false;
	const int32 position = InStr(sep);
	if (position == -1) {
		left = *this;
		return false;
	}
	UTFString head;
	UTFString remainder;
	Split(static_cast<uint32>(position), head, remainder);
	UTFString after;
	if (remainder.Length() >= sep.Length()) {
		UTFString separator;
		remainder.Split(sep.Length(), separator, after);
	}
	left = head;
	right = after;
	return true;
}

bool UTFString::SplitChar(const UTFString& set, UTFString& left, UTFString& right) const
{
	if (fBuffer == nullptr)
		return false;
	const size_t total = strlen(fBuffer);
	const size_t setTotal = SafeLength(set.fBuffer);
	size_t offset = 0;
	for (uint32 index = 0; index < fLength && offset < total; index++) {
		const UTFChar own(fBuffer + offset);
		size_t setOffset = 0;
		for (uint32 k = 0; k < set.fLength && setOffset < setTotal; k++) {
			if (own == UTFChar(set.fBuffer + setOffset)) {
				Split(index, left, right);
				return true;
			}
			setOffset = std::min(setOffset + CharSize(set.fBuffer + setOffset), setTotal);
		}
		offset += CharSize(fBuffer + offset);
	}
	left = *this;
	return false;
}

int32 UTFString::InStr(const UTFString& s) const
{
	if (fBuffer == nullptr || s.fBuffer == nullptr)
		return -1;
	const char* match = strstr(fBuffer, s.fBuffer);
	if (match == nullptr)
		return -1;
	// The characters whose first byte lies before the match.
	return static_cast<int32>(CountChars(fBuffer, match - fBuffer));
}

int32 UTFString::InStr(int32 start, const UTFString& s) const
{
	if (fBuffer == nullptr || s.fBuffer == nullptr || start < 0 ||
	    static_cast<uint32>(start) >= fLength)
		return -1;
	const char* from = fBuffer + WalkChars(fBuffer, strlen(fBuffer), start);
	const char* match = strstr(from, s.fBuffer);
	if (match == nullptr)
		return -1;
	return start + static_cast<int32>(CountChars(from, match - from));
}

namespace {

template <int (*kMap)(int)> void MapAsciiLetters(char* buffer, uint32 length)
{
	if (buffer == nullptr)
		return;
	const size_t total = strlen(buffer);
	size_t offset = 0;
	for (uint32 i = 0; i < length && offset < total; i++) {
		const uint8 first = static_cast<uint8>(buffer[offset]);
		if (first < 0x80) {
			// Only an ASCII result is taken, so no locale can turn a letter
			// into a byte that would break the UTF-8 text.
			const int mapped = kMap(first);
			if (mapped >= 0 && mapped < 0x80)
				buffer[offset] = static_cast<char>(mapped);
		}
		offset += CharSize(first);
	}
}

} // namespace

void UTFString::ToUpper()
{
	MapAsciiLetters<toupper>(fBuffer, fLength);
}

void UTFString::ToLower()
{
	MapAsciiLetters<tolower>(fBuffer, fLength);
}

UTFChar UTFString::GetChar(uint32 index) const
{
	if (fBuffer == nullptr)
		return UTFChar();
	return UTFChar(fBuffer + ByteOffsetOf(index));
}

char UTFString::GetChar8(uint32 index) const
{
	if (fBuffer == nullptr)
		return 0;
	return fBuffer[ByteOffsetOf(index)];
}

void UTFString::SetChar(const UTFChar& c, uint32 index)
{
	Insert(index, index + 1, UTFString(c));
}

// #pragma mark - Replace
//
// Each pass replaces the match at character p by the new text and resumes
// the search at p plus the length of the old text in the changed string.
// Everything before the match stays as it is in later passes, so the result
// can be built from left to right instead of rebuilding the string each pass.

namespace {

// Walks over [text, text + n) and returns where the walk ends: n, or beyond
// it when the last character is cut short by the end. *steps receives the
// number of characters.
size_t WalkEnd(const char* text, size_t n, size_t* steps)
{
	*steps = CountChars(text, n);
	if (*steps == 0)
		return 0;
	const size_t last = WalkChars(text, n, *steps - 1);
	return last + CharSize(text + last);
}

// Carries out the passes of Replace one by one, as the string operations
// define them, on any bytes and from any stored character count, without
// copying the rest of the text on every pass.
//
// The current string is kept as three parts: fDone, the text before the last
// match, which later passes never change (its character walk ends exactly at
// its end); fPending, a few bytes made by the last pass (the new text and
// what the walk needs to come back in step); and the rest of a base text
// from fAt on. fAt is a character start of the base's own walk from its
// beginning, and the walk of fPending ends exactly on it, so character
// counts in the base come from one cursor that only moves forward.
//
// A pass that does not fit this shape (the part kept after the match starts
// before it, or the part before the match ends inside a character) is
// carried out on the whole text, which becomes the new base. So is a seam
// whose walk does not come back in step within kSyncLimit bytes. Neither
// happens on text whose malformed bytes are followed by ASCII or
// well-formed characters, which keeps Replace linear on such text.
class PassRunner
{
public:
	PassRunner(const char* text, size_t textBytes, const char* old, size_t oldBytes,
	           uint32 oldChars, const char* with, size_t withBytes)
	    : fOld(old), fOldBytes(oldBytes), fOldChars(oldChars), fWith(with, withBytes),
	      fDoneChars(0), fPendingChars(0), fBase(text), fBaseBytes(textBytes), fBaseChars(0),
	      fAt(0), fAtIndex(0)
	{
		fBaseChars = CountChars(text, textBytes);
	}

	// Runs passes until no match is left; the first search is from the start
	// when fromStart, else from character resume. Pass numbers start at
	// firstPass. Returns false, with *result untouched, when a pass number
	// above maxPasses or a text above maxBytes would be needed.
	bool Run(bool fromStart, uint32 resume, size_t firstPass, size_t maxPasses, size_t maxBytes,
	         std::string* result)
	{
		for (size_t pass = firstPass;; pass++) {
			const uint32 length = Length();
			size_t searchFrom = 0;
			if (!fromStart) {
				// InStr(resume, old) on the current string.
				if (static_cast<int32>(resume) < 0 || resume >= length)
					break;
				searchFrom = StepFromStart(resume - fDoneChars);
			}
			fromStart = false;
			size_t match;
			if (!Search(searchFrom, &match))
				break;
			if (pass > maxPasses || Bytes() > maxBytes)
				return false;
			const uint32 position = Pass(length, match);
			resume = position + fOldChars;
		}
		result->reserve(Bytes());
		result->assign(fDone);
		result->append(fPending);
		result->append(fBase + fAt, fBaseBytes - fAt);
		return true;
	}

private:
	// Canonical walk of the base: offset (clamped to the base's end) and the
	// number of characters before it.
	struct Cursor
	{
		size_t offset;
		size_t index;
		// The last character stepped over runs past the base's end.
		bool cut;
	};

	static const size_t kSyncLimit = 64;

	uint32 Length() const
	{
		return static_cast<uint32>(fDoneChars + fPendingChars + (fBaseChars - fAtIndex));
	}

	size_t Bytes() const { return fDone.size() + fPending.size() + (fBaseBytes - fAt); }

	// Offsets in the working text: fPending, then the base from fAt.
	size_t WorkBytes() const { return fPending.size() + (fBaseBytes - fAt); }
	size_t BaseOf(size_t work) const { return fAt + (work - fPending.size()); }
	size_t WorkOf(size_t base) const { return fPending.size() + (base - fAt); }

	// Moves c to the first start of the base's walk at or after offset.
	void AdvanceTo(Cursor* c, size_t offset) const
	{
		if (c->offset >= offset)
			return;
		const size_t count = CountChars(fBase + c->offset, offset - c->offset);
		c->offset += WalkChars(fBase + c->offset, fBaseBytes - c->offset, count, nullptr, &c->cut);
		c->index += count;
	}

	// Moves c over count characters of the base (stopping at its end).
	void Step(Cursor* c, size_t count) const
	{
		size_t walked;
		c->offset += WalkChars(fBase + c->offset, fBaseBytes - c->offset, count, &walked, &c->cut);
		c->index += walked;
	}

	// Working offset after count characters from the start of the working
	// text; *cursor, when given, receives the base cursor used.
	size_t StepFrom(size_t from, size_t count, Cursor* cursor = nullptr) const
	{
		Cursor c = {fAt, fAtIndex, false};
		if (from < fPending.size()) {
			size_t walked;
			const size_t n = fPending.size() - from;
			const size_t reached = WalkChars(fPending.data() + from, n, count, &walked);
			if (walked == count || reached < n) {
				if (cursor != nullptr)
					*cursor = c;
				return from + reached;
			}
			count -= walked;
		} else {
			AdvanceTo(&c, BaseOf(from));
		}
		Step(&c, count);
		if (cursor != nullptr)
			*cursor = c;
		return WorkOf(c.offset);
	}

	size_t StepFromStart(size_t count) const { return StepFrom(0, count); }

	// strstr of the pattern in the working text from offset from.
	bool Search(size_t from, size_t* match) const
	{
		if (fOldBytes == 0) {
			*match = from;
			return true;
		}
		if (from < fPending.size()) {
			// An occurrence that starts in fPending may run on into the base.
			std::string window(fPending, from);
			window.append(fBase + fAt, std::min(fOldBytes - 1, fBaseBytes - fAt));
			const void* hit = memmem(window.data(), window.size(), fOld, fOldBytes);
			if (hit != nullptr) {
				*match = from + (static_cast<const char*>(hit) - window.data());
				return true;
			}
			from = fPending.size();
		}
		const char* hit = FindBytes(fBase + BaseOf(from), fBase + fBaseBytes, fOld, fOldBytes);
		if (hit == nullptr)
			return false;
		*match = WorkOf(hit - fBase);
		return true;
	}

	// One pass for the occurrence at working offset match; returns the
	// character index p of the match.
	uint32 Pass(uint32 length, size_t match)
	{
		// p: the characters that start before the match; leftEnd: where
		// Left(p) ends (the first character start at or after the match).
		size_t before;
		size_t leftEnd;
		Cursor c = {fAt, fAtIndex, false};
		bool leftCut = false;
		if (match < fPending.size()) {
			leftEnd = WalkEnd(fPending.data(), match, &before);
			leftCut = leftEnd > WorkBytes();
		} else {
			AdvanceTo(&c, BaseOf(match));
			before = fPendingChars + (c.index - fAtIndex);
			leftEnd = WorkOf(c.offset);
			leftCut = c.cut;
		}
		const uint32 position = static_cast<uint32>(fDoneChars + before);

		// Right(length - (oldChars + p)) starts at character length - m.
		const uint32 count = length - (fOldChars + position);
		const uint32 m = std::min(count, length - 1);
		const uint32 rightStart = std::min(length - m, length);
		if (leftCut || rightStart != position + fOldChars) {
			PassOnWholeText(position, rightStart);
			return position;
		}

		Cursor rc;
		const size_t rightFrom = StepFrom(leftEnd, fOldChars, &rc);
		fDone.append(fPending, 0, std::min(leftEnd, fPending.size()));
		if (leftEnd > fPending.size())
			fDone.append(fBase + fAt, BaseOf(leftEnd) - fAt);
		fDoneChars = position;

		std::string pending(fWith);
		Cursor from = {fAt, fAtIndex, false};
		if (rightFrom < fPending.size())
			pending.append(fPending, rightFrom, std::string::npos);
		else
			from = rc;
		fPending.swap(pending);
		Settle(from);
		return position;
	}

	// Makes the walk of fPending end on a start of the base's walk at or
	// after from, taking base bytes into fPending as needed.
	void Settle(Cursor from)
	{
		size_t steps;
		const size_t end = WalkEnd(fPending.data(), fPending.size(), &steps);
		size_t q = from.offset + (end - fPending.size());
		Cursor c = from;
		for (;;) {
			if (q >= fBaseBytes) {
				fPending.append(fBase + from.offset, fBaseBytes - from.offset);
				fAt = fBaseBytes;
				fAtIndex = fBaseChars;
				break;
			}
			AdvanceTo(&c, q);
			if (c.offset == q) {
				fPending.append(fBase + from.offset, q - from.offset);
				fAt = q;
				fAtIndex = c.index;
				break;
			}
			if (q - from.offset > kSyncLimit) {
				// Out of step for long: the rest becomes a new base.
				std::string base(fPending);
				base.append(fBase + from.offset, fBaseBytes - from.offset);
				NewBase(&base);
				return;
			}
			q += CharSize(fBase + q);
			steps++;
		}
		fPendingChars = steps;
	}

	// The pass carried out on the whole text: Left(p) + new text + the text
	// from character rightStart.
	void PassOnWholeText(uint32 position, uint32 rightStart)
	{
		std::string text;
		text.reserve(Bytes());
		text.append(fDone);
		text.append(fPending);
		text.append(fBase + fAt, fBaseBytes - fAt);
		const size_t left = WalkChars(text.data(), text.size(), position);
		const size_t right = WalkChars(text.data(), text.size(), rightStart);
		std::string changed(text, 0, left);
		changed.append(fWith);
		changed.append(text, right, std::string::npos);
		fDone.clear();
		fDoneChars = 0;
		NewBase(&changed);
	}

	// Makes *text (taken over) the base, with fPending empty.
	void NewBase(std::string* text)
	{
		fOwnedBase.swap(*text);
		fBase = fOwnedBase.c_str();
		fBaseBytes = fOwnedBase.size();
		fBaseChars = CountChars(fBase, fBaseBytes);
		fAt = 0;
		fAtIndex = 0;
		fPending.clear();
		fPendingChars = 0;
	}

	const char* const fOld;
	const size_t fOldBytes;
	const uint32 fOldChars;
	const std::string fWith;

	std::string fDone;
	size_t fDoneChars;
	std::string fPending;
	size_t fPendingChars;
	std::string fOwnedBase;
	const char* fBase;
	size_t fBaseBytes;
	size_t fBaseChars;
	size_t fAt;
	size_t fAtIndex;
};

} // namespace

void UTFString::Replace(const UTFString& oldText, const UTFString& newText)
{
	if (fBuffer == nullptr || oldText.fBuffer == nullptr)
		return;
	// Every pass uses the stored lengths: the string's own on the first pass
	// (later passes see the length the assignment of each pass counts) and
	// the old text's throughout.
	const uint32 oldChars = oldText.fLength;
	const bool oldExact = oldText.fLengthExact;
	// Private copies: either argument may be this string.
	const UTFString pattern(oldText);
	const UTFString replacement(newText);
	const size_t originalBytes = strlen(fBuffer);

	if (!fLengthExact) {
		// The first pass from the stale length, as the members define it;
		// the rest from the exact length of its result.
		const int32 p = InStr(pattern);
		if (p == -1)
			return;
		if (zvkit::internal::ChecksOn()) {
			const size_t counted = CountChars(fBuffer, originalBytes);
			if (counted != fLength) {
				zvkit::internal::CheckReport(
				    "UTFString::Replace",
				    "starts from the stored length %u that StrCat left stale (the text has %zu "
				    "characters); the first pass cuts Left and Right by that length",
				    fLength, counted);
			}
		}
		UTFString next(Left(static_cast<uint32>(p)) + replacement +
		               Right(fLength - (oldChars + static_cast<uint32>(p))));
		ReplacePasses(next, pattern, oldChars, replacement, static_cast<uint32>(p) + oldChars,
		              originalBytes);
		return;
	}

	if (oldExact) {
		if (oldChars == 0 && pattern.ByteLength() == 0) {
			// An empty pattern matches at 0 on every pass, and each pass puts
			// the new text in front of all characters but the first. With an
			// empty new text this empties the string; otherwise it never
			// ends.
			if (replacement.fLength == 0)
				AssignBytes("", 0);
			else
				ReportEndlessReplace("an empty old text with a new text never ends");
			return;
		}
		bool patternWellFormed;
		bool replacementWellFormed = true;
		CountChars(pattern.fBuffer, strlen(pattern.fBuffer), &patternWellFormed);
		if (replacement.fBuffer != nullptr)
			CountChars(replacement.fBuffer, strlen(replacement.fBuffer), &replacementWellFormed);
		if (patternWellFormed && replacementWellFormed && ReplaceInStep(pattern, replacement))
			return;
	}
	const char* with = replacement.fBuffer != nullptr ? replacement.fBuffer : "";
	PassRunner runner(fBuffer, originalBytes, pattern.fBuffer, strlen(pattern.fBuffer), oldChars,
	                  with, strlen(with));
	std::string result;
	if (runner.Run(true, 0, 1, originalBytes + 1, MaxReplaceBytes(originalBytes, with), &result))
		AssignBytes(result.data(), result.size());
	else
		ReportEndlessReplace("the loop needs more passes than the text has bytes, or grows it "
		                     "past 16 times its size: it would not end");
}

// Runs the passes after the first on next (the result of the first pass) and
// installs the outcome; a loop beyond the limits leaves the string as it was.
void UTFString::ReplacePasses(const UTFString& next, const UTFString& pattern, uint32 oldChars,
                              const UTFString& replacement, uint32 resume, size_t originalBytes)
{
	const char* with = replacement.fBuffer != nullptr ? replacement.fBuffer : "";
	const char* text = next.fBuffer != nullptr ? next.fBuffer : "";
	PassRunner runner(text, strlen(text), pattern.fBuffer, strlen(pattern.fBuffer), oldChars, with,
	                  strlen(with));
	std::string result;
	if (runner.Run(false, resume, 2, originalBytes + 1, MaxReplaceBytes(originalBytes, with),
	               &result))
		AssignBytes(result.data(), result.size());
	else
		ReportEndlessReplace("the loop needs more passes than the text has bytes, or grows it "
		                     "past 16 times its size: it would not end");
}

// With a well-formed pattern and new text, a match that starts on a
// character covers exactly the pattern's characters, and lengths add up
// under concatenation, so no character index needs to be known: each pass
// keeps what lies before the match, and the text still to be searched is the
// part of the new text beyond the pattern's length (Q) followed by the rest
// of the original. If Q holds the pattern, every later pass finds a match
// inside Q again and the loop never ends; otherwise each pass consumes
// original text. The string's own text may be malformed: the characters a
// pass replaces are found by stepping from the last character start, and
// only a pass that would run out of characters (returning false with nothing
// changed) is left to the general path.
bool UTFString::ReplaceInStep(const UTFString& pattern, const UTFString& replacement)
{
	const char* const text = fBuffer;
	const size_t total = strlen(text);
	const char* const end = text + total;
	const char* const old = pattern.fBuffer;
	const size_t oldBytes = strlen(old);
	const uint32 oldChars = pattern.fLength;
	const char* const with = replacement.fBuffer != nullptr ? replacement.fBuffer : "";
	const size_t withBytes = strlen(with);
	const uint32 withChars = replacement.fLength;

	if (strstr(text, old) == nullptr)
		return true;

	// The search resumes inside the new text when it has at least as many
	// characters as the pattern, and beyond it (skipping original
	// characters) otherwise.
	const bool resumesInside = withChars >= oldChars;
	size_t keptBytes = withBytes;
	const char* rescan = with + withBytes;
	size_t rescanBytes = 0;
	bool rescanHoldsPattern = false;
	if (resumesInside) {
		keptBytes = WalkChars(with, withBytes, oldChars);
		rescan = with + keptBytes;
		rescanBytes = withBytes - keptBytes;
		rescanHoldsPattern =
		    rescanBytes >= oldBytes && memmem(rescan, rescanBytes, old, oldBytes) != nullptr;
	}

	ByteBuilder out(total);
	const char* rest = text;
	bool rescanPending = false;
	std::string window;
	for (;;) {
		// A match that starts inside the pending part of the new text runs
		// on into the original (the part itself holds no match).
		size_t matchInRescan = rescanBytes;
		if (rescanPending && rescanBytes != 0) {
			window.assign(rescan, rescanBytes);
			window.append(rest, std::min(oldBytes - 1, static_cast<size_t>(end - rest)));
			const void* hit = memmem(window.data(), window.size(), old, oldBytes);
			if (hit != nullptr)
				matchInRescan = static_cast<const char*>(hit) - window.data();
		}
		if (matchInRescan < rescanBytes) {
			out.Append(rescan, matchInRescan);
			rest += matchInRescan + oldBytes - rescanBytes;
		} else {
			const char* match = FindBytes(rest, end, old, oldBytes);
			if (match == nullptr)
				break;
			// rest begins on a character. The replaced characters begin at
			// the match, or, when the match begins inside a character of
			// malformed text, at the next character (the match's index
			// counts the characters that start before it).
			const size_t restBytes = end - rest;
			const size_t from = FirstStartFrom(rest, restBytes, match - rest);
			size_t walked;
			const size_t to = from + StepChars(rest + from, restBytes - from, oldChars, &walked);
			if (walked < oldChars) {
				// Fewer characters left than the pattern has: the pass keeps
				// all but the first character of the string after the new
				// text, which only the general path does.
				return false;
			}
			// A Q that holds the pattern means a loop without end only once
			// this first pass is known to step over the pattern's
			// characters, leaving the kept text ending on a character.
			// When the match lies inside a truncated sequence at the end
			// the pass runs out of characters (above): the new text then
			// continues that sequence and the loop can end.
			if (rescanHoldsPattern) {
				ReportEndlessReplace("the new text brings the old text back at every resume "
				                     "point, so the loop never ends");
				return true;
			}
			if (rescanPending)
				out.Append(rescan, rescanBytes);
			out.Append(rest, from);
			rest += to;
		}
		out.Append(with, keptBytes);
		if (resumesInside) {
			rescanPending = true;
		} else {
			// The resume index lies beyond the new text: the characters
			// skipped there are kept but not searched.
			size_t skipped;
			const size_t bytes = WalkChars(rest, end - rest, oldChars - withChars, &skipped);
			out.Append(rest, bytes);
			rest += bytes;
			if (skipped < oldChars - withChars)
				break;
		}
	}
	if (rescanPending)
		out.Append(rescan, rescanBytes);
	out.Append(rest, end - rest);
	const size_t size = out.Size();
	Adopt(out.Release(), size);
	return true;
}
