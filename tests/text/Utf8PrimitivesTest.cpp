// Tests of the UTF-8 stepping functions, the reference tables and the script
// classification.
#include <ZvUTF8.h>

#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

namespace {

// A byte string in a heap block of exactly its size (no terminator unless
// given), so AddressSanitizer catches any read outside it.
std::vector<char> Bytes(std::initializer_list<int> bytes)
{
	std::vector<char> result;
	for (int b : bytes)
		result.push_back(static_cast<char>(b));
	return result;
}

} // namespace

TEST(Utf8Primitives, SizeFollowsTheTopNibbleOfTheFirstByte)
{
	const char c80 = static_cast<char>(0x80);
	const char cC3 = static_cast<char>(0xC3);
	const char cE3 = static_cast<char>(0xE3);
	const char cF0 = static_cast<char>(0xF0);
	const char cFF = static_cast<char>(0xFF);
	EXPECT_EQ(1, kx_utf8_size(&c80));
	EXPECT_EQ(2, kx_utf8_size(&cC3));
	EXPECT_EQ(3, kx_utf8_size(&cE3));
	EXPECT_EQ(4, kx_utf8_size(&cF0));
	EXPECT_EQ(4, kx_utf8_size(&cFF));
}

TEST(Utf8Primitives, SizeOfEveryByteValue)
{
	for (int b = 0; b < 256; b++) {
		const char c = static_cast<char>(b);
		const int expected = b < 0xC0 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
		EXPECT_EQ(expected, kx_utf8_size(&c)) << "byte " << b;
	}
}

TEST(Utf8Primitives, PreviousAtStartGivesNothing)
{
	const char text[] = "abc";
	EXPECT_EQ(0, kx_utf8_previous_size(text, text));
	EXPECT_EQ(nullptr, kx_utf8_previous(text, text));
}

TEST(Utf8Primitives, PreviousWithoutAnyLeadWithinReach)
{
	// 41 80 80 80 80, p at the end: no lead in the four bytes before p.
	std::vector<char> b = Bytes({0x41, 0x80, 0x80, 0x80, 0x80});
	const char* end = b.data() + b.size();
	EXPECT_EQ(0, kx_utf8_previous_size(end, b.data()));
	EXPECT_EQ(end, kx_utf8_previous(end, b.data()));
}

TEST(Utf8Primitives, PreviousOfSingleNonAsciiByteAtStart)
{
	for (int lead : {0x80, 0xC3, 0xE3, 0xF0}) {
		std::vector<char> b = Bytes({lead});
		EXPECT_EQ(0, kx_utf8_previous_size(b.data() + 1, b.data())) << lead;
		EXPECT_EQ(nullptr, kx_utf8_previous(b.data() + 1, b.data())) << lead;
	}
}

TEST(Utf8Primitives, PreviousStepsBackOverWholeCharacters)
{
	// a é 日 😀
	std::vector<char> b = Bytes({0x61, 0xC3, 0xA9, 0xE6, 0x97, 0xA5, 0xF0, 0x9F, 0x98, 0x80});
	const char* s = b.data();
	const char* p = s + b.size();
	EXPECT_EQ(4, kx_utf8_previous_size(p, s));
	EXPECT_EQ(s + 6, kx_utf8_previous(p, s));
	EXPECT_EQ(3, kx_utf8_previous_size(s + 6, s));
	EXPECT_EQ(s + 3, kx_utf8_previous(s + 6, s));
	EXPECT_EQ(2, kx_utf8_previous_size(s + 3, s));
	EXPECT_EQ(s + 1, kx_utf8_previous(s + 3, s));
	EXPECT_EQ(1, kx_utf8_previous_size(s + 1, s));
	EXPECT_EQ(s, kx_utf8_previous(s + 1, s));
}

TEST(Utf8Primitives, PreviousStopsAtStartInsideASequence)
{
	// A two-byte character cut at start: only its continuation byte is
	// available.
	std::vector<char> b = Bytes({0xC3, 0xA9});
	EXPECT_EQ(0, kx_utf8_previous_size(b.data() + 2, b.data() + 1));
	EXPECT_EQ(nullptr, kx_utf8_previous(b.data() + 2, b.data() + 1));
	// Three continuation bytes and start right before them.
	std::vector<char> c = Bytes({0x80, 0x80, 0x80});
	EXPECT_EQ(0, kx_utf8_previous_size(c.data() + 3, c.data()));
	EXPECT_EQ(nullptr, kx_utf8_previous(c.data() + 3, c.data()));
}

TEST(Utf8Primitives, PreviousDoesNotCheckTheBytesInBetween)
{
	// E3 41 42: p[-1] is ASCII, so one byte, whatever lies before it.
	std::vector<char> ascii = Bytes({0xE3, 0x41, 0x42});
	EXPECT_EQ(1, kx_utf8_previous_size(ascii.data() + 3, ascii.data()));
	// E3 41 80: p[-1] is not ASCII, p[-2] is not a two-byte lead, p[-3] is a
	// three-byte lead: three bytes, 41 unchecked.
	std::vector<char> mixed = Bytes({0xE3, 0x41, 0x80});
	EXPECT_EQ(3, kx_utf8_previous_size(mixed.data() + 3, mixed.data()));
	EXPECT_EQ(mixed.data(), kx_utf8_previous(mixed.data() + 3, mixed.data()));
}

TEST(Utf8Primitives, NextSteps)
{
	const char zero[2] = {0, 0};
	EXPECT_EQ(zero + 1, kx_utf8_next(zero));
	for (int b = 0x80; b <= 0xBF; b++) {
		const char c = static_cast<char>(b);
		EXPECT_EQ(&c, kx_utf8_next(&c)) << b;
	}
	const char two[] = "\xC3\xA9";
	const char three[] = "\xE6\x97\xA5";
	const char four[] = "\xF0\x9F\x98\x80";
	const char five[] = "\xF8\x80\x80\x80\x80";
	EXPECT_EQ(two + 2, kx_utf8_next(two));
	EXPECT_EQ(three + 3, kx_utf8_next(three));
	EXPECT_EQ(four + 4, kx_utf8_next(four));
	EXPECT_EQ(five + 4, kx_utf8_next(five));
	const char ascii[] = "a";
	EXPECT_EQ(ascii + 1, kx_utf8_next(ascii));
}

TEST(Utf8Primitives, ConvertReplacesHighBytesBySpaces)
{
	char out[8];
	convert_ascii_to_utf8("A\xC3\xA9"
	                      "B",
	                      out);
	EXPECT_STREQ("A  B", out);
	convert_ascii_to_utf8("", out);
	EXPECT_STREQ("", out);
}

TEST(Utf8Primitives, ConvertWorksInPlace)
{
	char text[] = "\xFFx\x80y\x7F";
	convert_ascii_to_utf8(text, text);
	EXPECT_STREQ(" x y\x7F", text);
}

TEST(Utf8Primitives, ConvertWritesNoMoreThanTheInput)
{
	// dst exactly strlen(src) + 1 bytes in its own heap block.
	const std::string src = "\xE6\x97\xA5 ok";
	std::vector<char> dst(src.size() + 1, 'x');
	convert_ascii_to_utf8(src.c_str(), dst.data());
	EXPECT_STREQ("    ok", dst.data());
}

TEST(Utf8Primitives, RangeOfAsciiCharacters)
{
	EXPECT_EQ(3u, unicode_range("a"));
	EXPECT_EQ(3u, unicode_range("7"));
	EXPECT_EQ(3u, unicode_range("\x01"));
	EXPECT_EQ(1u, unicode_range(" "));
	EXPECT_EQ(1u, unicode_range("\t"));
	EXPECT_EQ(2u, unicode_range(","));
	EXPECT_EQ(2u, unicode_range("~"));
}

TEST(Utf8Primitives, RangeOfTwoAndFourByteCharacters)
{
	EXPECT_EQ(3u, unicode_range("\xC3\xA9"));
	EXPECT_EQ(3u, unicode_range("\xDF\xBF"));
	EXPECT_EQ(0u, unicode_range("\xF0\x9F\x98\x80"));
	EXPECT_EQ(0u, unicode_range("\xF8\x80\x80\x80\x80"));
	EXPECT_EQ(0u, unicode_range("\xFF"));
}

TEST(Utf8Primitives, RangeOfStrayContinuationByteIsUnknown)
{
	EXPECT_EQ(0u, unicode_range("\x80"));
	EXPECT_EQ(0u, unicode_range("\xBF"));
}

TEST(Utf8Primitives, RangeOfThreeByteCharactersFollowsTheByteOrder)
{
	// U+3042 Hiragana A, U+30A2 Katakana A, U+4E00, U+3000, U+2000, U+3200,
	// U+FF01, U+F900.
	const char* samples[] = {"\xE3\x81\x82", "\xE3\x82\xA2", "\xE4\xB8\x80", "\xE3\x80\x80",
	                         "\xE2\x80\x80", "\xE3\x88\x80", "\xEF\xBC\x81", "\xEF\xA4\x80"};
	const uint32 bigEndian[] = {6, 7, 8, 2, 2, 4, 5, 8};
	for (size_t i = 0; i < sizeof(samples) / sizeof(samples[0]); i++) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
		EXPECT_EQ(bigEndian[i], unicode_range(samples[i])) << i;
#else
		(void)bigEndian;
		EXPECT_EQ(0u, unicode_range(samples[i])) << i;
#endif
	}
}

TEST(Utf8Primitives, RangeStopsAtTheTerminatorOfATruncatedSequence)
{
	// A lone three-byte lead in a heap block of two bytes (lead + zero).
	std::vector<char> b = Bytes({0xE3, 0x00});
	EXPECT_EQ(0u, unicode_range(b.data()));
	std::vector<char> c = Bytes({0xE3, 0x81, 0x00});
	EXPECT_EQ(0u, unicode_range(c.data()));
}

TEST(Utf8Primitives, TablesHoldTheReferenceValues)
{
	const uint32 offsets[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
	                           0x03C82080u, 0xFA082080u, 0x82082080u};
	for (int i = 0; i < 6; i++)
		EXPECT_EQ(offsets[i], offsetFromUTF8[i]) << i;
	for (int b = 0; b < 256; b++) {
		const int32 expected = b < 0xC0   ? 0
		                       : b < 0xE0 ? 1
		                       : b < 0xF0 ? 2
		                       : b < 0xF8 ? 3
		                       : b < 0xFC ? 4
		                                  : 5;
		EXPECT_EQ(expected, bytesFromUTF8[b]) << b;
	}
	const uint8 marks[7] = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
	for (int i = 0; i < 7; i++)
		EXPECT_EQ(marks[i], firstByteMark[i]) << i;
}

TEST(Utf8Primitives, TablesDecodeWellFormedSequences)
{
	// The tables together decode a sequence the reference way.
	const unsigned char text[] = "\xE6\x97\xA5";
	const int extra = bytesFromUTF8[text[0]];
	uint32 ch = 0;
	for (int i = 0; i <= extra; i++) {
		ch += text[i];
		if (i < extra)
			ch <<= 6;
	}
	ch -= offsetFromUTF8[extra];
	EXPECT_EQ(0x65E5u, ch);
	EXPECT_EQ(0xE6, firstByteMark[3] | (0x65E5 >> 12));
}

TEST(Utf8Primitives, ForwardAndBackwardWalksAgreeOnWellFormedText)
{
	const std::string text = "a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80z";
	std::vector<const char*> forward;
	const char* end = text.c_str() + text.size();
	for (const char* p = text.c_str(); p < end; p = kx_utf8_next(p))
		forward.push_back(p);
	std::vector<const char*> backward;
	for (const char* p = end; p != nullptr && p != text.c_str();) {
		p = kx_utf8_previous(p, text.c_str());
		if (p != nullptr)
			backward.insert(backward.begin(), p);
	}
	EXPECT_EQ(forward, backward);
	EXPECT_EQ(5u, forward.size());
}
