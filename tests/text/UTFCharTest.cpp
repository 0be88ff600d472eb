// Tests of UTFChar, the one-character value class.
#include <UTFString.h>

#include <gtest/gtest.h>

#include <string.h>

#include <vector>

TEST(UTFChar, DefaultIsTheNullCharacter)
{
	UTFChar c;
	EXPECT_TRUE(c.IsNull());
	EXPECT_TRUE(c.IsAscii());
	EXPECT_EQ(1, c.ByteLength());
	EXPECT_STREQ("", c.Buffer());
	EXPECT_TRUE(c == "");
}

TEST(UTFChar, FromEmptyTextIsNull)
{
	UTFChar c("");
	EXPECT_TRUE(c.IsNull());
	EXPECT_TRUE(c.IsAscii());
	EXPECT_EQ(1, c.ByteLength());
	EXPECT_FALSE(c.IsAlphaNum());
}

TEST(UTFChar, FromNullPointerIsNull)
{
	UTFChar c(static_cast<const char*>(nullptr));
	EXPECT_TRUE(c.IsNull());
}

TEST(UTFChar, CopiesExactlyOneCharacter)
{
	EXPECT_STREQ("a", UTFChar("abc").Buffer());
	EXPECT_STREQ("\xC3\xA9", UTFChar("\xC3\xA9x").Buffer());
	EXPECT_STREQ("\xE6\x97\xA5", UTFChar("\xE6\x97\xA5\xE6").Buffer());
	EXPECT_STREQ("\xF0\x9F\x98\x80", UTFChar("\xF0\x9F\x98\x80!").Buffer());
	EXPECT_EQ(3, UTFChar("\xE6\x97\xA5").ByteLength());
	EXPECT_EQ(4, UTFChar("\xF0\x9F\x98\x80").ByteLength());
	EXPECT_EQ(2, UTFChar("\xC3\xA9").ByteLength());
}

TEST(UTFChar, StopsAtTheTerminatorOfATruncatedSequence)
{
	// A three-byte lead followed by its terminator in a block of two bytes.
	std::vector<char> bytes = {static_cast<char>(0xE3), 0};
	UTFChar c(bytes.data());
	EXPECT_STREQ("\xE3", c.Buffer());
	EXPECT_EQ(3, c.ByteLength());
	EXPECT_FALSE(c.IsAscii());
}

TEST(UTFChar, ContinuationByteIsACharacterOfOneByte)
{
	UTFChar c("\x80\x80");
	EXPECT_STREQ("\x80", c.Buffer());
	EXPECT_EQ(1, c.ByteLength());
}

TEST(UTFChar, AlphaNumericIsTrueForEveryNonAsciiCharacter)
{
	EXPECT_TRUE(UTFChar("\xC3\xA9").IsAlphaNum());
	EXPECT_TRUE(UTFChar("\xE3\x80\x80").IsAlphaNum()); // ideographic space
	EXPECT_TRUE(UTFChar("\x80").IsAlphaNum());
	EXPECT_TRUE(UTFChar("a").IsAlphaNum());
	EXPECT_TRUE(UTFChar("Z").IsAlphaNum());
	EXPECT_TRUE(UTFChar("5").IsAlphaNum());
	EXPECT_FALSE(UTFChar(",").IsAlphaNum());
	EXPECT_FALSE(UTFChar(" ").IsAlphaNum());
}

TEST(UTFChar, AsciiMeansFirstByteBelow0x80)
{
	EXPECT_TRUE(UTFChar("\x7F").IsAscii());
	EXPECT_FALSE(UTFChar("\xC3\xA9").IsAscii());
	EXPECT_FALSE(UTFChar("\x80").IsAscii());
}

TEST(UTFChar, EqualityIsByteWise)
{
	UTFChar a("\xC3\xA9");
	UTFChar b("\xC3\xA9zzz");
	UTFChar c("e");
	EXPECT_TRUE(a == b);
	EXPECT_FALSE(a != b);
	EXPECT_TRUE(a != c);
	EXPECT_TRUE(a == "\xC3\xA9");
	EXPECT_FALSE(a == "\xC3\xA9z");
	EXPECT_TRUE(a != "e");
	EXPECT_FALSE(a == static_cast<const char*>(nullptr));
	EXPECT_TRUE(a != static_cast<const char*>(nullptr));
}

TEST(UTFChar, CopyAndAssignment)
{
	UTFChar a("\xE6\x97\xA5");
	UTFChar b(a);
	EXPECT_TRUE(b == a);
	UTFChar c("x");
	c = a;
	EXPECT_STREQ("\xE6\x97\xA5", c.Buffer());
	c = "q";
	EXPECT_STREQ("q", c.Buffer());
	// A shorter character replaces a longer one completely.
	UTFChar d("\xF0\x9F\x98\x80");
	d = "a";
	EXPECT_EQ(0, memcmp(d.Buffer(), "a\0\0\0\0", 5));
	c = c;
	EXPECT_STREQ("q", c.Buffer());
}

TEST(UTFChar, AssignmentFromItsOwnBytes)
{
	UTFChar a("\xC3\xA9");
	a = a.Buffer() + 1; // the continuation byte alone
	EXPECT_STREQ("\xA9", a.Buffer());
}

TEST(UTFChar, ClearBufZeroesAllBytes)
{
	UTFChar a("\xF0\x9F\x98\x80");
	a.ClearBuf();
	EXPECT_TRUE(a.IsNull());
	EXPECT_EQ(0, memcmp(a.Buffer(), "\0\0\0\0\0", 5));
}

TEST(UTFChar, ConvertsToItsText)
{
	UTFChar a("\xC3\xA9");
	const char* text = a;
	EXPECT_EQ(a.Buffer(), text);
	EXPECT_EQ(2u, strlen(text));
}

TEST(UTFChar, FiveAndSixByteLeadsAreFourBytes)
{
	UTFChar a("\xFC\x80\x80\x80\x80\x80");
	EXPECT_EQ(4, a.ByteLength());
	EXPECT_EQ(4u, strlen(a.Buffer()));
}
