// TextModel.h: a plain model of character-indexed text for the text tests.
//
// Character starts follow the lead-byte rule and stop at the end of the
// text; the replacement loop is written out with the public string
// operations. Tests compare UTFString against these.
#ifndef ZVKIT_TESTS_TEXT_MODEL_H
#define ZVKIT_TESTS_TEXT_MODEL_H

#include <UTFString.h>

#include <ctype.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <vector>

namespace textmodel {

// Byte offsets of the character starts of text.
inline std::vector<size_t> Starts(const std::string& text)
{
	std::vector<size_t> starts;
	starts.reserve(text.size());
	for (size_t i = 0; i < text.size();) {
		starts.push_back(i);
		i += kx_utf8_size(text.c_str() + i);
	}
	return starts;
}

// The bytes of character i (i below starts.size()).
inline std::string CharAt(const std::string& text, const std::vector<size_t>& starts, size_t i)
{
	const size_t end = i + 1 < starts.size() ? starts[i + 1] : text.size();
	return text.substr(starts[i], end - starts[i]);
}

// Byte offset of character index i, the end of the text past the last one.
inline size_t OffsetOf(const std::string& text, const std::vector<size_t>& starts, size_t i)
{
	return i < starts.size() ? starts[i] : text.size();
}

// Characters that start before byte offset.
inline int32 CharsBefore(const std::vector<size_t>& starts, size_t offset)
{
	return static_cast<int32>(std::lower_bound(starts.begin(), starts.end(), offset) -
	                          starts.begin());
}

// Only the first byte of each character, when ASCII, is mapped.
inline std::string MapCase(const std::string& text, bool upper)
{
	std::string result = text;
	for (size_t start : Starts(text)) {
		const unsigned char c = static_cast<unsigned char>(text[start]);
		if (c < 0x80)
			result[start] = static_cast<char>(upper ? toupper(c) : tolower(c));
	}
	return result;
}

inline std::string Text(const UTFString& s)
{
	return s.Buffer() != nullptr ? std::string(s.Buffer()) : std::string("<null>");
}

// The replacement loop as the string operations define it, bounded by
// maxPasses; *ended tells whether it finished within them. When the string
// grows beyond maxBytes the loop gives up (*gaveUp set, *ended false): the
// outcome is then unknown.
inline UTFString ReferenceReplace(UTFString s, const UTFString& old, const UTFString& with,
                                  size_t maxPasses, bool* ended, size_t maxBytes = SIZE_MAX,
                                  bool* gaveUp = nullptr)
{
	int32 p = s.InStr(old);
	size_t passes = 0;
	*ended = true;
	if (gaveUp != nullptr)
		*gaveUp = false;
	while (p != -1) {
		if (++passes > maxPasses) {
			*ended = false;
			return s;
		}
		s = s.Left(p) + with + s.Right(s.Length() - (old.Length() + p));
		if (s.ByteLength() > maxBytes) {
			*ended = false;
			if (gaveUp != nullptr)
				*gaveUp = true;
			return s;
		}
		p = s.InStr(p + static_cast<int32>(old.Length()), old);
	}
	return s;
}

// UTF-8 encoding of a code point, surrogates included.
inline std::string Encode(uint32 cp)
{
	std::string out;
	if (cp < 0x80) {
		out += static_cast<char>(cp);
	} else if (cp < 0x800) {
		out += static_cast<char>(0xC0 | (cp >> 6));
		out += static_cast<char>(0x80 | (cp & 0x3F));
	} else if (cp < 0x10000) {
		out += static_cast<char>(0xE0 | (cp >> 12));
		out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
		out += static_cast<char>(0x80 | (cp & 0x3F));
	} else {
		out += static_cast<char>(0xF0 | (cp >> 18));
		out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
		out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
		out += static_cast<char>(0x80 | (cp & 0x3F));
	}
	return out;
}

} // namespace textmodel

#endif // ZVKIT_TESTS_TEXT_MODEL_H
