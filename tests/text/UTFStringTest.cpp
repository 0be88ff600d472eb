// Tests of UTFString: construction, character indexing, splitting, search,
// replacement, case mapping, concatenation, malformed text and concurrent
// reading.
#include <UTFString.h>

#include "FailingAllocator.h"
#include "TestSupport.h"
#include "TextModel.h"

#include <gtest/gtest.h>

#include <string.h>

#include <functional>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

using textmodel::ReferenceReplace;
using textmodel::Starts;
using textmodel::Text;

namespace {

// Malformed texts: lone continuation bytes, truncated sequences at the end
// and in the middle, overlong forms, 0xF8-0xFF bytes.
const std::vector<std::string>& MalformedTexts()
{
	static const std::vector<std::string> texts = {
	    "\x80",
	    "a\x80\xBF"
	    "b",
	    "\xE3",
	    "ab\xE3",
	    "ab\xE3\x81",
	    "x\xF0\x9F\x98",
	    "\xC3",
	    "\xE3"
	    "ab"
	    "\xE3\x81\x82",
	    "\xC0\xAF"
	    "x\xE0\x80\xAF"
	    "y\xF0\x80\x80\xAF",
	    "\xF8\x88\x80\x80\x80"
	    "z",
	    "\xFC\x84\x80\x80\x80\x80",
	    "\xFE\xFF\xFE",
	    "a\xFF",
	    "\xC3\xA9\xA9\xA9",
	    "\xF0\x9F",
	    "\xED\xA0\x80\xED\xBF\xBF",
	};
	return texts;
}

// Replace on text, checked against the expected text and its length.
void ExpectReplaced(const char* text, const char* old, const char* with, const char* expected)
{
	UTFString s(text);
	s.Replace(UTFString(old), UTFString(with));
	EXPECT_EQ(std::string(expected), Text(s))
	    << "'" << text << "': '" << old << "' -> '" << with << "'";
	EXPECT_EQ(Starts(expected).size(), s.Length());
}

} // namespace

// #pragma mark - construction and comparison

TEST(UTFString, DefaultHoldsAnEmptyBuffer)
{
	UTFString s;
	ASSERT_NE(nullptr, s.Buffer());
	EXPECT_STREQ("", s.Buffer());
	EXPECT_EQ(0u, s.Length());
	EXPECT_EQ(0u, s.ByteLength());
	EXPECT_TRUE(s == "");
	EXPECT_TRUE(s == UTFString(""));
}

TEST(UTFString, NullPointerGivesNullBufferUnequalToEverything)
{
	UTFString s(static_cast<const char*>(nullptr));
	EXPECT_EQ(nullptr, s.Buffer());
	EXPECT_EQ(0u, s.Length());
	EXPECT_EQ(0u, s.ByteLength());
	EXPECT_FALSE(s == s);
	EXPECT_TRUE(s != s);
	EXPECT_FALSE(s == "");
	EXPECT_FALSE(s == UTFString(""));
	EXPECT_FALSE(UTFString("") == s);
	EXPECT_TRUE(UTFString("") != s);
	EXPECT_FALSE(UTFString("x") == static_cast<const char*>(nullptr));
	UTFString other(static_cast<const char*>(nullptr));
	EXPECT_FALSE(s == other);
}

TEST(UTFString, LengthCountsCharactersNotBytes)
{
	UTFString s("a\xC3\xA9\xE6\x97\xA5");
	EXPECT_EQ(3u, s.Length());
	EXPECT_EQ(6u, s.ByteLength());
	EXPECT_STREQ("\xE6\x97\xA5", s.GetChar(2).Buffer());
	EXPECT_EQ(static_cast<char>(0xC3), s.GetChar8(1));
	EXPECT_EQ('a', s.GetChar8(0));
	EXPECT_STREQ("\xC3\xA9", s.GetChar(1).Buffer());
}

TEST(UTFString, FourByteCharacters)
{
	UTFString s("\xF0\x9F\x98\x80x\xF0\x9F\x98\x81");
	EXPECT_EQ(3u, s.Length());
	EXPECT_STREQ("\xF0\x9F\x98\x81", s.GetChar(2).Buffer());
}

TEST(UTFString, FromCharacterAndCopy)
{
	UTFString c(UTFChar("\xE6\x97\xA5"));
	EXPECT_STREQ("\xE6\x97\xA5", c.Buffer());
	EXPECT_EQ(1u, c.Length());
	UTFString copy(c);
	EXPECT_NE(c.Buffer(), copy.Buffer());
	EXPECT_TRUE(copy == c);
	UTFString nothing(static_cast<const char*>(nullptr));
	UTFString nothingCopy(nothing);
	EXPECT_EQ(nullptr, nothingCopy.Buffer());
	EXPECT_EQ(0u, nothingCopy.Length());
}

TEST(UTFString, AssignmentCopiesAndSelfAssignmentKeepsTheText)
{
	UTFString a("abc");
	UTFString b("\xC3\xA9");
	a = b;
	EXPECT_STREQ("\xC3\xA9", a.Buffer());
	EXPECT_EQ(1u, a.Length());
	EXPECT_NE(a.Buffer(), b.Buffer());
	const char* before = a.Buffer();
	a = a;
	EXPECT_EQ(before, a.Buffer());
	a = "xyz";
	EXPECT_EQ(3u, a.Length());
	a = static_cast<const char*>(nullptr);
	EXPECT_EQ(nullptr, a.Buffer());
	EXPECT_EQ(0u, a.Length());
}

TEST(UTFString, AssignmentFromItsOwnBuffer)
{
	UTFString a("hello");
	a = a.Buffer() + 2;
	EXPECT_STREQ("llo", a.Buffer());
	EXPECT_EQ(3u, a.Length());
}

TEST(UTFString, ConversionToText)
{
	UTFString a("abc");
	const char* text = a;
	EXPECT_EQ(a.Buffer(), text);
}

TEST(UTFString, ComparisonIsByteWise)
{
	UTFString a("\xC3\xA9");
	EXPECT_TRUE(a == "\xC3\xA9");
	EXPECT_TRUE(a != "e");
	EXPECT_TRUE(a == UTFString("\xC3\xA9"));
	EXPECT_TRUE(a != UTFString("\xC3\xA9 "));
}

// #pragma mark - buffer management

TEST(UTFString, ClearBufferKeepsTheLength)
{
	UTFString a("abc");
	a.ClearBuffer();
	EXPECT_EQ(nullptr, a.Buffer());
	EXPECT_EQ(3u, a.Length());
	EXPECT_EQ(0u, a.ByteLength());
	a.CalcLength();
	EXPECT_EQ(0u, a.Length());
}

TEST(UTFString, StrCatAppendsBytesWithoutCounting)
{
	UTFString a("ab");
	a.StrCat("\xC3\xA9");
	EXPECT_STREQ("ab\xC3\xA9", a.Buffer());
	EXPECT_EQ(2u, a.Length());
	a.CalcLength();
	EXPECT_EQ(3u, a.Length());
	a.StrCat(nullptr);
	EXPECT_STREQ("ab\xC3\xA9", a.Buffer());
}

TEST(UTFString, StrCatOfItsOwnText)
{
	UTFString a("ab");
	a.StrCat(a.Buffer());
	EXPECT_STREQ("abab", a.Buffer());
}

TEST(UTFString, StrCatOnNullBufferStartsFromEmpty)
{
	UTFString a(static_cast<const char*>(nullptr));
	a.StrCat("xy");
	EXPECT_STREQ("xy", a.Buffer());
}

TEST(UTFString, AppendAfterStrCatCountsTheWholeText)
{
	UTFString a("ab");
	a.StrCat("cd");
	a += "e";
	EXPECT_EQ(5u, a.Length());
}

TEST(UTFString, CopyStringInstallsACopyAndCounts)
{
	UTFString a("abc");
	a.CopyString("\xE6\x97\xA5\xE6\x97\xA5");
	EXPECT_STREQ("\xE6\x97\xA5\xE6\x97\xA5", a.Buffer());
	EXPECT_EQ(2u, a.Length());
	a.CopyString(nullptr);
	EXPECT_STREQ("\xE6\x97\xA5\xE6\x97\xA5", a.Buffer());
	EXPECT_EQ(2u, a.Length());
}

// #pragma mark - concatenation

TEST(UTFString, AppendOperators)
{
	UTFString a("a");
	a += "\xC3\xA9";
	EXPECT_STREQ("a\xC3\xA9", a.Buffer());
	EXPECT_EQ(2u, a.Length());
	a += UTFString("\xE6\x97\xA5");
	EXPECT_EQ(3u, a.Length());
	a += static_cast<const char*>(nullptr);
	EXPECT_EQ(3u, a.Length());
	a += UTFString(static_cast<const char*>(nullptr));
	EXPECT_EQ(3u, a.Length());
	a += a;
	EXPECT_STREQ("a\xC3\xA9\xE6\x97\xA5"
	             "a\xC3\xA9\xE6\x97\xA5",
	             a.Buffer());
	EXPECT_EQ(6u, a.Length());
}

TEST(UTFString, AppendToNullBufferAssigns)
{
	UTFString a(static_cast<const char*>(nullptr));
	a += "xy";
	EXPECT_STREQ("xy", a.Buffer());
	EXPECT_EQ(2u, a.Length());
	UTFString b(static_cast<const char*>(nullptr));
	b += UTFString("\xC3\xA9");
	EXPECT_EQ(1u, b.Length());
	UTFString c(static_cast<const char*>(nullptr));
	c += static_cast<const char*>(nullptr);
	EXPECT_EQ(nullptr, c.Buffer());
}

TEST(UTFString, AppendAfterTruncatedSequenceCountsAgain)
{
	// The lead at the end takes the appended bytes as its own.
	UTFString a("a\xE3");
	EXPECT_EQ(2u, a.Length());
	a += "\x81\x82z";
	EXPECT_EQ(3u, a.Length());
	EXPECT_STREQ("\xE3\x81\x82", a.GetChar(1).Buffer());
}

TEST(UTFString, PlusMakesANewString)
{
	UTFString a("ab");
	UTFString b("\xC3\xA9");
	UTFString c = a + b;
	EXPECT_STREQ("ab\xC3\xA9", c.Buffer());
	EXPECT_EQ(3u, c.Length());
	EXPECT_STREQ("ab", a.Buffer());
	UTFString n(static_cast<const char*>(nullptr));
	EXPECT_STREQ("ab", (a + n).Buffer());
	EXPECT_STREQ("ab", (n + a).Buffer());
}

// #pragma mark - slicing

TEST(UTFString, LeftRightMidOnAbc)
{
	UTFString s("abc");
	EXPECT_EQ(UTFString("abc"), s.Left(10));
	EXPECT_EQ(UTFString("bc"), s.Right(10));
	EXPECT_EQ(UTFString("c"), s.Right(1));
	EXPECT_EQ(UTFString("ab"), s.Mid(0, 3));
	EXPECT_EQ(UTFString("ab"), s.Mid(0, 2));
	EXPECT_EQ(UTFString("b"), s.Mid(1, 5));
	EXPECT_EQ(UTFString(""), s.Left(0));
	EXPECT_EQ(UTFString(""), s.Right(0));
	EXPECT_EQ(UTFString("bc"), s.Right(2));
	EXPECT_EQ(UTFString("bc"), s.Right(3));
	EXPECT_EQ(UTFString("a"), s.Mid(0, 1));
	EXPECT_EQ(UTFString(""), s.Mid(0, 0));
	EXPECT_EQ(UTFString(""), s.Mid(2, 1));
	EXPECT_EQ(UTFString(""), s.Mid(7, 1));
}

TEST(UTFString, MidWithWrappingEnd)
{
	UTFString s("abcdef");
	// start + count wraps below start: the start is past the end.
	EXPECT_EQ(UTFString(""), s.Mid(2, 0xFFFFFFFFu));
	EXPECT_EQ(UTFString("bcd"), s.Mid(1, 3));
}

TEST(UTFString, SlicesCountCharacters)
{
	UTFString s("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E");
	EXPECT_EQ(UTFString("\xE6\x97\xA5\xE6\x9C\xAC"), s.Left(2));
	EXPECT_EQ(UTFString("\xE6\x9C\xAC\xE8\xAA\x9E"), s.Right(2));
	EXPECT_EQ(UTFString("\xE6\x9C\xAC"), s.Mid(1, 1));
	EXPECT_EQ(UTFString("\xE8\xAA\x9E"), s.StringAt(2));
}

TEST(UTFString, SlicesOfEmptyAndNullStrings)
{
	UTFString e;
	EXPECT_EQ(UTFString(""), e.Left(3));
	EXPECT_EQ(UTFString(""), e.Right(3));
	EXPECT_EQ(UTFString(""), e.Right(0));
	EXPECT_EQ(UTFString(""), e.Mid(0, 3));
	EXPECT_EQ(UTFString(""), e.StringAt(0));
	UTFString n(static_cast<const char*>(nullptr));
	EXPECT_EQ(UTFString(""), n.Left(3));
	EXPECT_EQ(UTFString(""), n.Right(3));
	EXPECT_EQ(UTFString(""), n.Mid(0, 3));
	EXPECT_EQ(UTFString(""), n.StringAt(0));
}

TEST(UTFString, StringAtGivesTheRest)
{
	UTFString s("a\xC3\xA9z");
	EXPECT_EQ(s, s.StringAt(0));
	EXPECT_EQ(UTFString("\xC3\xA9z"), s.StringAt(1));
	EXPECT_EQ(UTFString(""), s.StringAt(3));
	EXPECT_EQ(UTFString(""), s.StringAt(9));
	EXPECT_EQ(UTFString(""), s.StringAt(-1));
}

TEST(UTFString, SplitAtIndex)
{
	UTFString s("abcd");
	UTFString l("old");
	UTFString r("old");
	s.Split(2, l, r);
	EXPECT_EQ(UTFString("ab"), l);
	EXPECT_EQ(UTFString("cd"), r);
	EXPECT_EQ(2u, l.Length());
	s.Split(0, l, r);
	EXPECT_EQ(UTFString(""), l);
	EXPECT_EQ(UTFString("abcd"), r);
	s.Split(99, l, r);
	EXPECT_EQ(UTFString("abcd"), l);
	EXPECT_EQ(UTFString(""), r);
	EXPECT_STREQ("abcd", s.Buffer());
}

TEST(UTFString, SplitOfNullBufferLeavesOutputs)
{
	UTFString s(static_cast<const char*>(nullptr));
	UTFString l("left");
	UTFString r("right");
	s.Split(1, l, r);
	EXPECT_EQ(UTFString("left"), l);
	EXPECT_EQ(UTFString("right"), r);
}

TEST(UTFString, SplitIntoItself)
{
	UTFString s("a\xC3\xA9"
	            "bc");
	UTFString r;
	s.Split(2, s, r);
	EXPECT_EQ(UTFString("a\xC3\xA9"), s);
	EXPECT_EQ(UTFString("bc"), r);
	UTFString t("wxyz");
	UTFString l;
	t.Split(1, l, t);
	EXPECT_EQ(UTFString("w"), l);
	EXPECT_EQ(UTFString("xyz"), t);
	EXPECT_EQ(3u, t.Length());
}

TEST(UTFString, SplitAroundSeparator)
{
	UTFString s("a,b,c");
	UTFString l;
	UTFString r;
	EXPECT_TRUE(s.Split(UTFString(","), l, r));
	EXPECT_EQ(UTFString("a"), l);
	EXPECT_EQ(UTFString("b,c"), r);

	UTFString t("abc");
	UTFString l2;
	UTFString r2("untouched");
	EXPECT_FALSE(t.Split(UTFString(","), l2, r2));
	EXPECT_EQ(UTFString("abc"), l2);
	EXPECT_EQ(UTFString("untouched"), r2);
}

TEST(UTFString, SplitAroundMultiByteSeparator)
{
	UTFString s("\xE6\x97\xA5::\xE6\x9C\xAC::x");
	UTFString l;
	UTFString r;
	EXPECT_TRUE(s.Split(UTFString("::"), l, r));
	EXPECT_EQ(UTFString("\xE6\x97\xA5"), l);
	EXPECT_EQ(UTFString("\xE6\x9C\xAC::x"), r);
	EXPECT_EQ(4u, r.Length());
}

TEST(UTFString, SplitAroundEmptySeparatorGivesEmptyLeft)
{
	UTFString s("abc");
	UTFString l("x");
	UTFString r("y");
	EXPECT_TRUE(s.Split(UTFString(""), l, r));
	EXPECT_EQ(UTFString(""), l);
	EXPECT_EQ(UTFString("abc"), r);
}

TEST(UTFString, SplitAroundSeparatorOnNullBuffers)
{
	UTFString n(static_cast<const char*>(nullptr));
	UTFString l("l");
	UTFString r("r");
	EXPECT_FALSE(n.Split(UTFString(","), l, r));
	EXPECT_EQ(UTFString("l"), l);
	EXPECT_EQ(UTFString("r"), r);
	UTFString s("a,b");
	EXPECT_FALSE(s.Split(n, l, r));
	EXPECT_EQ(UTFString("a,b"), l);
	EXPECT_EQ(UTFString("r"), r);
}

TEST(UTFString, SplitCharTakesTheEarliestCharacterOfTheSet)
{
	UTFString s("a,b;c");
	UTFString l;
	UTFString r;
	EXPECT_TRUE(s.SplitChar(UTFString(";,"), l, r));
	EXPECT_EQ(UTFString("a"), l);
	EXPECT_EQ(UTFString(",b;c"), r);
}

TEST(UTFString, SplitCharMatchesWholeCharacters)
{
	// The set's é must not match the é-like bytes inside 日.
	UTFString s("\xE6\x97\xA5x\xC3\xA9y");
	UTFString l;
	UTFString r;
	EXPECT_TRUE(s.SplitChar(UTFString("\xC3\xA9"), l, r));
	EXPECT_EQ(UTFString("\xE6\x97\xA5x"), l);
	EXPECT_EQ(UTFString("\xC3\xA9y"), r);
}

TEST(UTFString, SplitCharWithoutMatch)
{
	UTFString s("abc");
	UTFString l;
	UTFString r("untouched");
	EXPECT_FALSE(s.SplitChar(UTFString(";"), l, r));
	EXPECT_EQ(UTFString("abc"), l);
	EXPECT_EQ(UTFString("untouched"), r);
	EXPECT_FALSE(s.SplitChar(UTFString(""), l, r));
	EXPECT_FALSE(s.SplitChar(UTFString(static_cast<const char*>(nullptr)), l, r));
	UTFString n(static_cast<const char*>(nullptr));
	UTFString l2("l");
	EXPECT_FALSE(n.SplitChar(UTFString("a"), l2, r));
	EXPECT_EQ(UTFString("l"), l2);
}

// #pragma mark - search

TEST(UTFString, InStrCountsCharacters)
{
	UTFString s("a\xC3\xA9"
	            "bc");
	EXPECT_EQ(2, s.InStr(UTFString("b")));
	EXPECT_EQ(-1, s.InStr(3, UTFString("b")));
	EXPECT_EQ(-1, s.InStr(-1, UTFString("a")));
	EXPECT_EQ(0, s.InStr(UTFString("")));
	EXPECT_EQ(1, s.InStr(UTFString("\xC3\xA9")));
	EXPECT_EQ(-1, s.InStr(UTFString("x")));
	EXPECT_EQ(2, s.InStr(1, UTFString("b")));
	EXPECT_EQ(2, s.InStr(2, UTFString("b")));
	EXPECT_EQ(3, s.InStr(3, UTFString("c")));
	EXPECT_EQ(-1, s.InStr(4, UTFString("c")));
	EXPECT_EQ(-1, s.InStr(1, UTFString("a")));
}

TEST(UTFString, InStrFindsTheFirstOccurrenceFromStart)
{
	UTFString s("\xE6\x97\xA5x\xE6\x97\xA5x\xE6\x97\xA5");
	EXPECT_EQ(1, s.InStr(UTFString("x")));
	EXPECT_EQ(3, s.InStr(2, UTFString("x")));
	EXPECT_EQ(2, s.InStr(1, UTFString("\xE6\x97\xA5")));
	EXPECT_EQ(1, s.InStr(1, UTFString("")));
}

TEST(UTFString, InStrOfNullBuffers)
{
	UTFString n(static_cast<const char*>(nullptr));
	EXPECT_EQ(-1, n.InStr(UTFString("")));
	EXPECT_EQ(-1, n.InStr(0, UTFString("")));
	UTFString s("abc");
	EXPECT_EQ(-1, s.InStr(n));
	EXPECT_EQ(-1, s.InStr(0, n));
}

TEST(UTFString, InStrInsideACharacterReportsTheNextIndex)
{
	// A search for a continuation byte finds it inside é.
	UTFString s("x\xC3\xA9y");
	EXPECT_EQ(2, s.InStr(UTFString("\xA9")));
}

// #pragma mark - editing

TEST(UTFString, RemoveReturnsTheTextAfterTheRange)
{
	UTFString s("abcd");
	UTFString rest = s.Remove(1, 2);
	EXPECT_EQ(UTFString("acd"), s);
	EXPECT_EQ(3u, s.Length());
	EXPECT_EQ(UTFString("cd"), rest);

	UTFString t("abcd");
	EXPECT_EQ(UTFString(""), t.Remove(2, 1));
	EXPECT_EQ(UTFString("abcd"), t);
}

TEST(UTFString, RemoveEdges)
{
	UTFString s("a\xC3\xA9\xE6\x97\xA5z");
	EXPECT_EQ(UTFString("z"), s.Remove(1, 3));
	EXPECT_EQ(UTFString("az"), s);
	UTFString t("abc");
	EXPECT_EQ(UTFString(""), t.Remove(0, 9));
	EXPECT_EQ(UTFString(""), t);
	UTFString u("abc");
	EXPECT_EQ(UTFString("bc"), u.Remove(1, 1));
	EXPECT_EQ(UTFString("abc"), u);
	UTFString v("abc");
	EXPECT_EQ(UTFString(""), v.Remove(5, 9));
	EXPECT_EQ(UTFString("abc"), v);
	UTFString n(static_cast<const char*>(nullptr));
	EXPECT_EQ(UTFString(""), n.Remove(0, 1));
	EXPECT_EQ(nullptr, n.Buffer());
}

TEST(UTFString, InsertAndReplaceRange)
{
	UTFString s("abc");
	s.Insert(1, 1, UTFString("xy"));
	EXPECT_EQ(UTFString("axybc"), s);
	EXPECT_EQ(5u, s.Length());
	s.Insert(1, 3, UTFString("\xC3\xA9"));
	EXPECT_EQ(UTFString("a\xC3\xA9"
	                    "bc"),
	          s);
	s.Insert(0, 0, UTFString(">"));
	EXPECT_EQ(UTFString(">a\xC3\xA9"
	                    "bc"),
	          s);
	s.Insert(99, 99, UTFString("<"));
	EXPECT_EQ(UTFString(">a\xC3\xA9"
	                    "bc<"),
	          s);
	EXPECT_EQ(6u, s.Length());
}

TEST(UTFString, InsertWithEndBelowStartReplacesToTheEnd)
{
	UTFString s("abcdef");
	s.Insert(2, 1, UTFString("Z"));
	EXPECT_EQ(UTFString("abZ"), s);
}

TEST(UTFString, InsertIntoNullBufferCopies)
{
	UTFString s(static_cast<const char*>(nullptr));
	s.Insert(3, 5, UTFString("\xC3\xA9"));
	EXPECT_EQ(UTFString("\xC3\xA9"), s);
	EXPECT_EQ(1u, s.Length());
}

TEST(UTFString, InsertOfItself)
{
	UTFString s("ab");
	s.Insert(1, 1, s);
	EXPECT_EQ(UTFString("aabb"), s);
	UTFString t("ab");
	t.Insert(0, 1, UTFString(static_cast<const char*>(nullptr)));
	EXPECT_EQ(UTFString("b"), t);
}

TEST(UTFString, SetCharReplacesOrAppends)
{
	UTFString s("abc");
	s.SetChar(UTFChar("c"), 1);
	EXPECT_EQ(UTFString("acc"), s);
	UTFString t("abc");
	t.SetChar(UTFChar("c"), 9);
	EXPECT_EQ(UTFString("abcc"), t);
	UTFString u("a\xE6\x97\xA5z");
	u.SetChar(UTFChar("\xC3\xA9"), 1);
	EXPECT_EQ(UTFString("a\xC3\xA9z"), u);
	EXPECT_EQ(3u, u.Length());
}

TEST(UTFString, ReplaceAllOccurrences)
{
	ExpectReplaced("abcab", "ab", "x", "xcx");
	ExpectReplaced("aa", "a", "bb", "bbbb");
}

TEST(UTFString, ReplaceResumesAfterTheOldLength)
{
	// After "abab" -> "xab" the search resumes at index 2 ("b"), so the
	// second "ab" stays: the resume index adds the old length.
	ExpectReplaced("abab", "ab", "x", "xab");
	// A longer new text is searched from inside itself.
	ExpectReplaced("aXa", "a", "ab", "abXab");
	// "xya" + "c": resume at 2 ("ac"), no "ab".
	ExpectReplaced("abc", "ab", "xya", "xyac");
	// A match that starts in the new text and runs into the old text:
	// "xyab", resume at 2, "ab" found at 2 -> "xy" + "xya" = "xyxya".
	ExpectReplaced("abb", "ab", "xya", "xyxya");
}

TEST(UTFString, ReplaceMultiByteText)
{
	ExpectReplaced("\xE6\x97\xA5\xE6\x9C\xAC\xE6\x97\xA5", "\xE6\x97\xA5", "\xC3\xA9",
	               "\xC3\xA9\xE6\x9C\xAC\xC3\xA9");
	ExpectReplaced("a\xC3\xA9"
	               "b\xC3\xA9",
	               "\xC3\xA9", "", "ab");
}

TEST(UTFString, ReplaceWithoutMatchChangesNothing)
{
	UTFString s("abc");
	const char* before = s.Buffer();
	s.Replace(UTFString("x"), UTFString("y"));
	EXPECT_EQ(before, s.Buffer());
	UTFString n(static_cast<const char*>(nullptr));
	n.Replace(UTFString("x"), UTFString("y"));
	EXPECT_EQ(nullptr, n.Buffer());
	s.Replace(UTFString(static_cast<const char*>(nullptr)), UTFString("y"));
	EXPECT_EQ(UTFString("abc"), s);
}

TEST(UTFString, ReplaceByNullTextRemoves)
{
	UTFString s("a-b-c");
	s.Replace(UTFString("-"), UTFString(static_cast<const char*>(nullptr)));
	EXPECT_EQ(UTFString("abc"), s);
}

TEST(UTFString, ReplaceOfEmptyPatternByEmptyTextEmptiesTheString)
{
	ExpectReplaced("a\xC3\xA9z", "", "", "");
	ExpectReplaced("", "", "", "");
}

TEST(UTFString, ReplaceThatWouldNeverEndLeavesTheString)
{
	ExpectReplaced("abc", "", "x", "abc");
	ExpectReplaced("xay", "a", "aa", "xay");
	ExpectReplaced("\xE6\x97\xA5", "\xE6\x97\xA5", "-\xE6\x97\xA5", "\xE6\x97\xA5");
	// Without a match there is no loop at all.
	ExpectReplaced("xyz", "a", "aa", "xyz");
}

TEST(UTFString, ReplaceOfMatchInsideTruncatedEndContinuesTheCharacterAndEnds)
{
	// FE reads as a four-byte lead cut short by the terminator, so "\xFE."
	// is one character and the "." is found inside it at index 1. The pass
	// keeps Left(1), the whole string, and appends the new text, which the
	// lead takes in: the string is still one character long, the search
	// resumes at index 2, past the end, and the loop ends, although the new
	// text holds the old one beyond its first character.
	ExpectReplaced("\xFE.", ".", "\x7F.", "\xFE.\x7F.");
	UTFString s("\xFE.");
	s.Replace(UTFString("."), UTFString("\x7F."));
	EXPECT_EQ(1u, s.Length());
	// The same new text after a complete character does loop without end.
	ExpectReplaced("\xC3\xA9.", ".", "\x7F.", "\xC3\xA9.");
}

TEST(UTFString, ReplaceOfMatchInsideACharacterReplacesTheNextCharacter)
{
	// The Latin-1 byte E9 reads as a three-byte lead that takes " a" with
	// it. The first space is found inside that character, at index 4, so the
	// character at index 4 ("u") is the one replaced; the search then goes on
	// from index 5.
	ExpectReplaced("caf\xE9 au lait", " ", "_", "caf\xE9 a__lait");
}

TEST(UTFString, ReplaceOnLargeMalformedTextIsLinear)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(60), "replace on Latin-1 text");
	std::string text;
	while (text.size() < 400000)
		text += "caf\xE9 au lait, cr\xE8me br\xFBl\xE9"
		        "e; ";
	std::string expected = text;
	for (char& c : expected) {
		if (c == ',')
			c = '|';
	}
	UTFString s(text.c_str());
	const uint32 length = s.Length();
	s.Replace(UTFString(","), UTFString("|"));
	EXPECT_EQ(expected, Text(s));
	EXPECT_EQ(length, s.Length());
}

TEST(UTFString, ReplaceWithItselfAsArgument)
{
	UTFString s("abc");
	s.Replace(s, UTFString("x"));
	EXPECT_EQ(UTFString("x"), s);
	UTFString t("ab");
	t.Replace(UTFString("a"), t);
	EXPECT_EQ(UTFString("abb"), t);
}

TEST(UTFString, ReplaceMatchesTheLiteralLoopOnRandomText)
{
	// Random texts over well-formed and malformed pieces, compared with the
	// loop written out with Left, Right and InStr.
	const std::vector<std::string> pieces = {
	    "a",    "b",    "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80",
	    "\x80", "\xE3", "\xC3",     "\xF8",         "\xA9"};
	std::mt19937 random(20261123);
	auto make = [&](int maxPieces, bool wellFormedOnly) {
		std::string text;
		const int count = static_cast<int>(random() % (maxPieces + 1));
		for (int i = 0; i < count; i++)
			text += pieces[random() % (wellFormedOnly ? 5 : pieces.size())];
		return text;
	};
	int compared = 0;
	int neverEnding = 0;
	for (int round = 0; round < 6000; round++) {
		const bool wellFormedOnly = round % 2 == 0;
		const std::string text = make(10, wellFormedOnly);
		std::string old = make(3, wellFormedOnly);
		const std::string with = make(4, wellFormedOnly);
		if (old.empty() && round % 7 != 0)
			old = "a";
		bool ended;
		const UTFString expected =
		    ReferenceReplace(UTFString(text.c_str()), UTFString(old.c_str()),
		                     UTFString(with.c_str()), text.size() + 1, &ended);
		UTFString s(text.c_str());
		s.Replace(UTFString(old.c_str()), UTFString(with.c_str()));
		if (ended) {
			compared++;
			ASSERT_EQ(Text(expected), Text(s))
			    << "text '" << text << "' old '" << old << "' new '" << with << "'";
			ASSERT_EQ(expected.Length(), s.Length());
		} else {
			neverEnding++;
			ASSERT_EQ(text, Text(s));
		}
	}
	EXPECT_GT(compared, 4000);
	EXPECT_GT(neverEnding, 10);
}

// The loop of Replace written out with Left, Right and InStr on s itself, so
// the first pass uses s's stored length even when StrCat left it stale
// (ReferenceReplace takes a copy, which counts again). Later passes work on
// the assigned result, whose length is counted.
UTFString LiteralReplaceFromStoredLength(const UTFString& s, const UTFString& old,
                                         const UTFString& with, size_t maxPasses, bool* ended)
{
	*ended = true;
	const int32 first = s.InStr(old);
	if (first == -1)
		return s;
	UTFString next =
	    s.Left(first) + with + s.Right(s.Length() - (old.Length() + static_cast<uint32>(first)));
	int32 p = next.InStr(first + static_cast<int32>(old.Length()), old);
	for (size_t passes = 1; p != -1; passes++) {
		if (passes + 1 > maxPasses) {
			*ended = false;
			return next;
		}
		next = next.Left(p) + with + next.Right(next.Length() - (old.Length() + p));
		// A pass that keeps all but the first character doubles the text:
		// such loops are stopped long before they fill the memory.
		if (next.ByteLength() > 65536) {
			*ended = false;
			return next;
		}
		p = next.InStr(p + static_cast<int32>(old.Length()), old);
	}
	return next;
}

TEST(UTFString, ReplaceBuildsItsFirstPassFromTheStaleLengthStrCatLeft)
{
	// "" has length 0 and StrCat("a") leaves it 0. InStr("a") is 0. The pass
	// is Left(0) + "" + Right(0 - (1 + 0)): the count wraps to 4294967295,
	// Right caps it at length - 1, which wraps as well, and so starts at
	// 0 - 4294967295 = 1, which the split limits to the stored length 0: the
	// whole text "a". The result "a" is assigned (length 1), and the search
	// resumes at 0 + 1, not below the length 1: the loop ends with "a".
	UTFString s("");
	s.StrCat("a");
	ASSERT_EQ(0u, s.Length());
	s.Replace(UTFString("a"), UTFString(""));
	EXPECT_EQ("a", Text(s));
	EXPECT_EQ(1u, s.Length());

	// "abc" has length 3 and StrCat("de") leaves it 3. InStr("d") is 3. The
	// first pass is Left(3) = "abc", then "X", then Right(3 - (1 + 3)): the
	// count wraps and is capped at 3 - 1 = 2, so Right starts at 3 - 2 = 1
	// and gives "bcde". "abcXbcde" is assigned (length 8) and the search
	// resumes at 3 + 1 = 4, finding "d" at 6. The second pass is Left(6) =
	// "abcXbc", "X" and Right(8 - (1 + 6)) = Right(1) = "e": "abcXbcXe". The
	// search from 7 finds nothing.
	UTFString t("abc");
	t.StrCat("de");
	ASSERT_EQ(3u, t.Length());
	t.Replace(UTFString("d"), UTFString("X"));
	EXPECT_EQ("abcXbcXe", Text(t));
	EXPECT_EQ(8u, t.Length());
}

TEST(UTFString, ReplaceBuildsItsFirstPassFromAStaleLengthAboveTheCount)
{
	// ClearBuffer keeps the length 10 and StrCat installs "a\xC3" "bc",
	// whose characters are "a", "\xC3" "b" (the lead takes the "b") and "c":
	// three. InStr("bc") finds the bytes at offset 2, inside the second
	// character, and reports index 2 (two characters start before them).
	// Left(2) is "a\xC3" "b". Right(10 - (2 + 2)) = Right(6) is capped at
	// 10 - 1 = 9, stays 6 and starts at 10 - 6 = 4, beyond the three
	// characters: "". The result "a\xC3" "bX" has three characters, and the
	// search resumes at 2 + 2 = 4, past the end.
	UTFString s("0123456789");
	s.ClearBuffer();
	s.StrCat("a\xC3"
	         "bc");
	ASSERT_EQ(10u, s.Length());
	s.Replace(UTFString("bc"), UTFString("X"));
	EXPECT_EQ("a\xC3"
	          "bX",
	          Text(s));
	EXPECT_EQ(3u, s.Length());

	// From the counted length 3 the same pass wraps: Right(3 - 4) keeps all
	// but the first character, "\xC3" "bc", giving "a\xC3" "bX\xC3" "bc"
	// (five characters); the search from 4 looks at "c" only and ends.
	UTFString counted("a\xC3"
	                  "bc");
	counted.Replace(UTFString("bc"), UTFString("X"));
	EXPECT_EQ("a\xC3"
	          "bX\xC3"
	          "bc",
	          Text(counted));
	EXPECT_EQ(5u, counted.Length());
}

TEST(UTFString, ReplaceUsesTheStoredLengthOfTheOldText)
{
	// "b" with a stale length 0 (StrCat on ""): each pass is Left(p) + "X" +
	// Right(length - p), which keeps the matched "b" after the new text.
	// On "ab": p = 1, Left(1) = "a", Right(2 - 1) = "b": "aXb" (length 3),
	// and the search resumes at 1 + 0 = 1 and finds the same "b" at 2:
	// "aXXb", and so on for ever; such a loop leaves the string as it is.
	UTFString old("");
	old.StrCat("b");
	ASSERT_EQ(0u, old.Length());
	UTFString s("ab");
	s.Replace(old, UTFString("X"));
	EXPECT_EQ("ab", Text(s));
	// Replacing by nothing ends: "a" + "" + "b" finds "b" at 1 again and
	// again, but each pass leaves "ab" itself, and the passes run out.
	bool ended;
	UTFString expected =
	    LiteralReplaceFromStoredLength(UTFString("ab"), old, UTFString(""), 3, &ended);
	EXPECT_FALSE(ended);
	UTFString t("ab");
	t.Replace(old, UTFString(""));
	EXPECT_EQ("ab", Text(t));
}

namespace {

// Up to maxPieces pieces drawn at random and joined.
std::string RandomPieces(std::mt19937& random, const std::vector<std::string>& pieces,
                         int maxPieces)
{
	std::string text;
	const int count = static_cast<int>(random() % (maxPieces + 1));
	for (int i = 0; i < count; i++)
		text += pieces[random() % pieces.size()];
	return text;
}

} // namespace

TEST(UTFString, ReplaceFromStaleLengthsMatchesTheLiteralLoopOnRandomText)
{
	// Random texts whose length is left stale by StrCat (shorter) or by
	// ClearBuffer and StrCat (longer), over well-formed and malformed pieces.
	const std::vector<std::string> pieces = {
	    "a",    "b",    "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80",
	    "\x80", "\xE3", "\xC3",     "\xF8",         "\xA9"};
	std::mt19937 random(20261125);
	auto make = [&](int maxPieces) { return RandomPieces(random, pieces, maxPieces); };
	int compared = 0;
	int differentFromCounted = 0;
	for (int round = 0; round < 6000; round++) {
		const std::string head = make(6);
		const std::string tail = make(6);
		const std::string text = round % 2 == 1 ? tail : head + tail;
		// Mostly a piece of the text itself, so that most rounds match.
		std::string old = make(3);
		if (!text.empty() && round % 4 != 0) {
			const size_t at = random() % text.size();
			old = text.substr(at, 1 + random() % 4);
		}
		if (old.empty())
			old = "a";
		const std::string with = make(4);
		UTFString s(head.c_str());
		if (round % 2 == 1)
			s.ClearBuffer();
		s.StrCat(tail.c_str());
		bool ended;
		const UTFString expected = LiteralReplaceFromStoredLength(
		    s, UTFString(old.c_str()), UTFString(with.c_str()), text.size() + 1, &ended);
		UTFString counted(text.c_str());
		counted.Replace(UTFString(old.c_str()), UTFString(with.c_str()));
		const uint32 stored = s.Length();
		const bool matches = s.InStr(UTFString(old.c_str())) != -1;
		s.Replace(UTFString(old.c_str()), UTFString(with.c_str()));
		if (!matches) {
			// No pass, no assignment: the stale length stays.
			ASSERT_EQ(text, Text(s));
			ASSERT_EQ(stored, s.Length());
			continue;
		}
		if (!ended) {
			ASSERT_EQ(text, Text(s));
			continue;
		}
		compared++;
		ASSERT_EQ(Text(expected), Text(s))
		    << "text '" << text << "' old '" << old << "' new '" << with << "'";
		ASSERT_EQ(expected.Length(), s.Length());
		if (Text(counted) != Text(s))
			differentFromCounted++;
	}
	EXPECT_GT(compared, 3000);
	// The stale length matters in a good share of the rounds.
	EXPECT_GT(differentFromCounted, 300) << compared;
}

TEST(UTFString, ReplaceWithMalformedPatternsAndTextsMatchesTheLiteralLoop)
{
	// Longer texts than the loop test above, with malformed patterns and new
	// texts in every round, so that matches lie far apart and the new text
	// takes bytes of the text behind it into its characters.
	const std::vector<std::string> pieces = {
	    "a",    "b",    " ",    "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80",
	    "\x80", "\xE3", "\xC3", "\xF8",     "\xA9",         "\xE9"};
	const std::vector<std::string> malformed = {"\xE9",
	                                            "\x80",
	                                            "\xC3",
	                                            "\xE3\x81",
	                                            "\xF0",
	                                            "a\xE3",
	                                            "\xA9"
	                                            "b",
	                                            "\xE9 "};
	std::mt19937 random(777);
	auto make = [&](int maxPieces) { return RandomPieces(random, pieces, maxPieces); };
	int compared = 0;
	for (int round = 0; round < 3000; round++) {
		const std::string text = make(120);
		std::string old = malformed[random() % malformed.size()];
		std::string with = make(3);
		if (round % 3 == 0) {
			with = malformed[random() % malformed.size()];
			old = pieces[random() % pieces.size()];
		} else if (round % 3 == 1) {
			with += malformed[random() % malformed.size()];
		}
		bool ended;
		const UTFString expected =
		    ReferenceReplace(UTFString(text.c_str()), UTFString(old.c_str()),
		                     UTFString(with.c_str()), text.size() + 1, &ended, 1 << 20);
		UTFString s(text.c_str());
		s.Replace(UTFString(old.c_str()), UTFString(with.c_str()));
		if (!ended) {
			ASSERT_EQ(text, Text(s));
			continue;
		}
		compared++;
		ASSERT_EQ(Text(expected), Text(s))
		    << "text '" << text << "' old '" << old << "' new '" << with << "'";
		ASSERT_EQ(expected.Length(), s.Length());
	}
	EXPECT_GT(compared, 2000);
}

TEST(UTFString, ReplaceOfMalformedPatternOnLargeTextIsLinear)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(60), "replace of a malformed pattern");
	// The byte E9 reads as a three-byte lead and takes "xy" with it: the
	// pattern "\xE9" (one character) matches there and each pass replaces
	// that whole character, so "caf\xE9xy;" becomes "cafe;".
	std::string text;
	std::string expected;
	while (text.size() < 1000000) {
		text += "caf\xE9xy;";
		expected += "cafe;";
	}
	UTFString s(text.c_str());
	s.Replace(UTFString("\xE9"), UTFString("e"));
	EXPECT_EQ(expected, Text(s));
	EXPECT_EQ(expected.size(), s.Length());
}

TEST(UTFString, ReplaceByMalformedTextOnLargeTextIsLinear)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(60), "replace by a malformed text");
	// Each ";" becomes the lead E9, which takes the "cd" behind it into its
	// character; the search resumes one character on, at the space.
	std::string text;
	std::string expected;
	size_t characters = 0;
	while (text.size() < 1000000) {
		text += "ab;cd ";
		expected += "ab\xE9"
		            "cd ";
		characters += 4;
	}
	UTFString s(text.c_str());
	s.Replace(UTFString(";"), UTFString("\xE9"));
	EXPECT_EQ(expected, Text(s));
	EXPECT_EQ(characters, s.Length());
}

TEST(UTFString, ToUpperAndToLowerChangeAsciiLettersOnly)
{
	UTFString s("a\xC3\xA9");
	s.ToUpper();
	EXPECT_EQ(UTFString("A\xC3\xA9"), s);
	UTFString t("Hello, W\xC3\x96RLD \xE6\x97\xA5!");
	t.ToLower();
	EXPECT_EQ(UTFString("hello, w\xC3\x96rld \xE6\x97\xA5!"), t);
	EXPECT_EQ(15u, t.Length());
	t.ToUpper();
	EXPECT_EQ(UTFString("HELLO, W\xC3\x96RLD \xE6\x97\xA5!"), t);
	UTFString n(static_cast<const char*>(nullptr));
	n.ToUpper();
	EXPECT_EQ(nullptr, n.Buffer());
}

TEST(UTFString, ToUpperVisitsOnlyCharacterStarts)
{
	// The ASCII bytes swallowed by the lead E3 are not character starts.
	UTFString s("\xE3"
	            "ab"
	            "cd");
	s.ToUpper();
	EXPECT_EQ(UTFString("\xE3"
	                    "ab"
	                    "CD"),
	          s);
}

TEST(UTFString, ToUpperVisitsOnlyTheCountedLength)
{
	// StrCat leaves the length at 1: only the first character is visited.
	UTFString s("a");
	s.StrCat("bc");
	s.ToUpper();
	EXPECT_STREQ("Abc", s.Buffer());
}

TEST(UTFString, GetCharPastTheEndIsNull)
{
	UTFString s("a\xC3\xA9");
	EXPECT_TRUE(s.GetChar(2).IsNull());
	EXPECT_TRUE(s.GetChar(1000).IsNull());
	EXPECT_EQ(0, s.GetChar8(2));
	EXPECT_EQ(0, s.GetChar8(0xFFFFFFFFu));
	UTFString n(static_cast<const char*>(nullptr));
	EXPECT_TRUE(n.GetChar(0).IsNull());
	EXPECT_EQ(0, n.GetChar8(0));
}

// #pragma mark - long text (word-at-a-time counting)

TEST(UTFString, LongMixedTextCountsAndIndexesExactly)
{
	std::mt19937 random(7);
	const std::vector<std::string> pieces = {
	    "a",    "bc",   "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80",
	    "\x80", "\xE3", "\xFF",     "\xC3",         "0123456789abcdef"};
	for (int round = 0; round < 200; round++) {
		std::string text;
		const int count = 1 + static_cast<int>(random() % 120);
		for (int i = 0; i < count; i++)
			text += pieces[random() % (round % 3 == 0 ? pieces.size() : 5)];
		const std::vector<size_t> starts = Starts(text);
		UTFString s(text.c_str());
		ASSERT_EQ(starts.size(), s.Length()) << round;
		for (size_t i = 0; i < starts.size(); i += 1 + random() % 5) {
			const size_t end = i + 1 < starts.size() ? starts[i + 1] : text.size();
			ASSERT_EQ(text.substr(starts[i], end - starts[i]), s.GetChar(i).Buffer()) << round;
			ASSERT_EQ(text.substr(starts[i]), Text(s.StringAt(static_cast<int32>(i))));
			ASSERT_EQ(text.substr(0, starts[i]), Text(s.Left(i)));
		}
	}
}

TEST(UTFString, LongTextWithRareMalformedBytesCountsExactly)
{
	// Long well-formed runs (counted in blocks) broken by single malformed
	// bytes at every offset of a block, and truncated sequences at the end.
	const std::vector<std::string> good = {"ab", "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80",
	                                       "x"};
	const std::vector<std::string> bad = {"\x80", "\xE3", "\xC3", "\xF8", "\xBF\xBF", "\xF0\x9F"};
	std::mt19937 random(99);
	for (int round = 0; round < 120; round++) {
		std::string text;
		const size_t size = 64 + random() % 400;
		while (text.size() < size) {
			if (random() % 97 == 0)
				text += bad[random() % bad.size()];
			else
				text += good[random() % good.size()];
		}
		if (round % 5 == 0)
			text += bad[random() % bad.size()];
		const std::vector<size_t> starts = Starts(text);
		UTFString s(text.c_str());
		ASSERT_EQ(starts.size(), s.Length()) << round;
		for (size_t i = 0; i <= starts.size(); i += 1 + random() % 9) {
			const size_t at = i < starts.size() ? starts[i] : text.size();
			ASSERT_EQ(text.substr(0, at), Text(s.Left(static_cast<uint32>(i))))
			    << round << " " << i;
			if (i < starts.size()) {
				ASSERT_EQ(
				    text.substr(at, (i + 1 < starts.size() ? starts[i + 1] : text.size()) - at),
				    s.GetChar(static_cast<uint32>(i)).Buffer());
			}
		}
		// Replace over the same text, well-formed or not, against the loop.
		const std::string& old = good[random() % good.size()];
		const std::string& with = good[random() % good.size()];
		// (Malformed text can make the loop copy ever more of itself; the
		// written-out loop gives up on that, the comparison is skipped.)
		bool ended;
		bool gaveUp;
		const UTFString expected =
		    ReferenceReplace(s, UTFString(old.c_str()), UTFString(with.c_str()), text.size() + 1,
		                     &ended, 8 * text.size(), &gaveUp);
		UTFString replaced(s);
		replaced.Replace(UTFString(old.c_str()), UTFString(with.c_str()));
		if (!gaveUp) {
			ASSERT_EQ(ended ? Text(expected) : text, Text(replaced)) << round;
		}
		ASSERT_EQ(Starts(Text(replaced)).size(), replaced.Length());
	}
}

// #pragma mark - malformed text through every operation

TEST(UTFString, MalformedTextThroughEveryOperation)
{
	for (const std::string& text : MalformedTexts()) {
		SCOPED_TRACE(testing::PrintToString(text));
		const std::vector<size_t> starts = Starts(text);
		const uint32 length = static_cast<uint32>(starts.size());
		UTFString s(text.c_str());
		ASSERT_EQ(length, s.Length());
		EXPECT_EQ(text.size(), s.ByteLength());
		UTFString copy(s);
		EXPECT_TRUE(copy == s);
		copy.CalcLength();
		EXPECT_EQ(length, copy.Length());
		UTFString copied;
		copied.CopyString(text.c_str());
		EXPECT_EQ(length, copied.Length());
		UTFString doubled(s);
		doubled.StrCat(text.c_str());
		doubled.CalcLength();
		EXPECT_EQ(Starts(text + text).size(), doubled.Length());

		for (uint32 i = 0; i <= length + 2; i++) {
			const size_t at = i < length ? starts[i] : text.size();
			const size_t end = i + 1 < length ? starts[i + 1] : text.size();
			const std::string expected = i < length ? text.substr(at, end - at) : "";
			EXPECT_EQ(expected, s.GetChar(i).Buffer()) << i;
			EXPECT_EQ(i < length ? text[at] : 0, s.GetChar8(i)) << i;

			UTFString l;
			UTFString r;
			s.Split(i, l, r);
			EXPECT_EQ(text.substr(0, at), Text(l));
			EXPECT_EQ(text.substr(at), Text(r));
			EXPECT_EQ(text, Text(l + r));
			EXPECT_EQ(Text(l), Text(s.Left(i)));
			EXPECT_EQ(Text(r), Text(s.StringAt(static_cast<int32>(i))));
			(void)s.Right(i);
			for (uint32 count = 0; count < 3; count++)
				(void)s.Mid(i, count);
			EXPECT_EQ(i < length ? static_cast<int32>(i) : -1,
			          s.InStr(static_cast<int32>(i), UTFString("")));

			UTFString edited(s);
			edited.Insert(i, i + 1, UTFString("\xE6\x97\xA5"));
			UTFString removed(s);
			(void)removed.Remove(i, i + 1);
			UTFString set(s);
			set.SetChar(UTFChar("\xC3\xA9"), i);
		}
		for (const std::string& pattern : MalformedTexts()) {
			const int32 found = s.InStr(UTFString(pattern.c_str()));
			const size_t byte = text.find(pattern);
			if (byte == std::string::npos) {
				EXPECT_EQ(-1, found);
			} else {
				// The number of characters that start before the match.
				int32 expected = 0;
				while (expected < static_cast<int32>(length) && starts[expected] < byte)
					expected++;
				EXPECT_EQ(expected, found) << testing::PrintToString(pattern);
			}
			UTFString l;
			UTFString r;
			(void)s.Split(UTFString(pattern.c_str()), l, r);
			(void)s.SplitChar(UTFString(pattern.c_str()), l, r);
			UTFString replaced(s);
			replaced.Replace(UTFString(pattern.c_str()), UTFString("-"));
			UTFString back(s);
			back.Replace(UTFString("a"), UTFString(pattern.c_str()));
		}
		UTFString upper(s);
		upper.ToUpper();
		UTFString lower(s);
		lower.ToLower();
		EXPECT_EQ(length, upper.Length());
		UTFString appended(s);
		appended += s;
		appended += "x";
		EXPECT_EQ(text + text + "x", Text(appended));
		EXPECT_EQ(Starts(text + text + "x").size(), appended.Length());
	}
}

TEST(UTFString, TruncatedSequenceAtTheEndCountsAsOneCharacter)
{
	// The terminator stops the walk inside the lead's sequence.
	EXPECT_EQ(1u, UTFString("\xE3").Length());
	EXPECT_EQ(3u, UTFString("ab\xF0\x9F").Length());
	EXPECT_EQ(2u, UTFString("a\xC3").Length());
	UTFString s("ab\xE3\x81");
	EXPECT_STREQ("\xE3\x81", s.GetChar(2).Buffer());
	EXPECT_TRUE(s.GetChar(3).IsNull());
	EXPECT_EQ(UTFString("\xE3\x81"), s.Right(1));
	EXPECT_EQ(UTFString("ab"), s.Mid(0, 9));
}

TEST(UTFString, LeadSwallowsTheBytesThatFollowIt)
{
	// E3 'a' 'b' is one character, whatever the bytes after the lead are.
	UTFString s("\xE3"
	            "ab"
	            "cd");
	EXPECT_EQ(3u, s.Length());
	EXPECT_STREQ("\xE3"
	             "ab",
	             s.GetChar(0).Buffer());
	EXPECT_EQ(1, s.InStr(UTFString("b")));
	EXPECT_EQ(2, s.InStr(UTFString("d")));
}

// #pragma mark - allocation failures

TEST(UTFString, FailedAllocationPropagatesAndLeavesAValidString)
{
	// Each operation is run with its first, second, ... allocation failing:
	// the exception reaches the caller, every temporary is released (the
	// leak checker of the sanitizer builds watches), and the string is
	// still a valid string, its old text or its new one.
	const std::vector<std::pair<const char*, std::function<void(UTFString&)>>> operations = {
	    {"assign", [](UTFString& s) { s = "\xE6\x97\xA5 new text"; }},
	    {"append", [](UTFString& s) { s += UTFString(" more"); }},
	    {"plus", [](UTFString& s) { s = s + UTFString("!"); }},
	    {"insert", [](UTFString& s) { s.Insert(2, 4, UTFString("\xC3\xA9")); }},
	    {"remove", [](UTFString& s) { (void)s.Remove(1, 3); }},
	    {"split",
	     [](UTFString& s) {
		     UTFString l;
		     UTFString r;
		     s.Split(3, l, r);
		     (void)s.Split(UTFString(","), l, r);
		     (void)s.SplitChar(UTFString(",;"), l, r);
	     }},
	    {"slices",
	     [](UTFString& s) {
		     (void)s.Left(3);
		     (void)s.Right(3);
		     (void)s.Mid(1, 3);
		     (void)s.StringAt(2);
	     }},
	    {"replace", [](UTFString& s) { s.Replace(UTFString(","), UTFString("\xE3\x80\x81")); }},
	    {"replace malformed", [](UTFString& s) { s.Replace(UTFString("\x80"), UTFString("-")); }},
	    {"set char", [](UTFString& s) { s.SetChar(UTFChar("x"), 1); }},
	    {"strcat",
	     [](UTFString& s) {
		     s.StrCat("tail");
		     s.CalcLength();
	     }},
	};
	for (const auto& operation : operations) {
		bool completed = false;
		for (long k = 0; k < 64 && !completed; k++) {
			UTFString s("a,b\xC3\xA9\xE6\x97\xA5,c;d\x80"
			            "e");
			const std::string before = Text(s);
			bool threw = false;
			{
				failing::Disarm disarm;
				failing::FailAfter(k);
				try {
					operation.second(s);
				} catch (const std::bad_alloc&) {
					threw = true;
				}
				completed = !failing::Failed();
			}
			EXPECT_EQ(threw, !completed) << operation.first << " " << k;
			ASSERT_NE(nullptr, s.Buffer()) << operation.first << " " << k;
			EXPECT_EQ(Starts(Text(s)).size(), s.Length()) << operation.first << " " << k;
			if (threw) {
				EXPECT_EQ(before, Text(s)) << operation.first << " " << k;
			}
		}
		EXPECT_TRUE(completed) << operation.first;
	}
}

// #pragma mark - concurrency

TEST(UTFString, ReadingOperationsMayRunConcurrently)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(60), "concurrent reads");
	std::string text;
	for (int i = 0; i < 200; i++)
		text += "a\xC3\xA9\xE6\x97\xA5,";
	const UTFString shared(text.c_str());
	const int kThreads = 4;
	zvtest::Latch ready(kThreads);
	std::vector<std::thread> threads;
	std::vector<int> failures(kThreads, 0);
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&, t] {
			ready.CountDown();
			ready.WaitFor(std::chrono::seconds(10));
			for (int round = 0; round < 200; round++) {
				const uint32 index = static_cast<uint32>((round * 7 + t) % 700);
				UTFString l;
				UTFString r;
				shared.Split(index, l, r);
				if (l.Length() != index || l.Length() + r.Length() != shared.Length())
					failures[t]++;
				if (shared.Left(index) + shared.StringAt(static_cast<int32>(index)) != shared)
					failures[t]++;
				if (shared.Mid(index, 4).Length() != 4)
					failures[t]++;
				if (shared.InStr(static_cast<int32>(index), UTFString(",")) < 0)
					failures[t]++;
				UTFString a;
				UTFString b;
				if (!shared.Split(UTFString(","), a, b) || a != "a\xC3\xA9\xE6\x97\xA5")
					failures[t]++;
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	for (int t = 0; t < kThreads; t++)
		EXPECT_EQ(0, failures[t]) << t;
	EXPECT_STREQ(text.c_str(), shared.Buffer());
}

TEST(UTFString, SeparateStringsChangeIndependentlyInThreads)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(60), "independent strings");
	const int kThreads = 4;
	std::vector<std::string> results(kThreads);
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&results, t] {
			UTFString s;
			for (int i = 0; i < 300; i++)
				s += (i % 2 == 0) ? "\xE6\x97\xA5" : "x";
			s.Replace(UTFString("x"), UTFString("\xC3\xA9"));
			s.ToUpper();
			results[t] = Text(s);
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	std::string expected;
	for (int i = 0; i < 150; i++)
		expected += "\xE6\x97\xA5\xC3\xA9";
	for (int t = 0; t < kThreads; t++)
		EXPECT_EQ(expected, results[t]);
}
