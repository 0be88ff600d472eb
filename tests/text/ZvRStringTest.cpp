// Tests of ZvRString, the minimal owned byte string.
#include <ZvRString.h>

#include "FailingAllocator.h"

#include <gtest/gtest.h>

#include <string.h>

namespace {

// Releases a ZvRString's storage at the end of a test (it has no destructor).
struct Releaser
{
	explicit Releaser(ZvRString& s) : fString(s) {}
	~Releaser() { fString._free(); }
	ZvRString& fString;
};

} // namespace

TEST(ZvRString, DefaultIsEmpty)
{
	ZvRString s;
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(0u, s.length);
	EXPECT_EQ(0, s[0]);
}

TEST(ZvRString, UseThenConcat)
{
	ZvRString s;
	Releaser release(s);
	s.use("abc");
	EXPECT_STREQ("abc", s.data);
	EXPECT_EQ(3u, s.length);
	ZvRString& same = s.concat("de");
	EXPECT_EQ(&s, &same);
	EXPECT_STREQ("abcde", s.data);
	EXPECT_EQ(5u, s.length);
	const char* before = s.data;
	s.concat("");
	EXPECT_EQ(before, s.data);
	EXPECT_EQ(5u, s.length);
	s.concat(nullptr);
	EXPECT_EQ(before, s.data);
	EXPECT_STREQ("abcde", s.data);
}

TEST(ZvRString, ConcatOnEmptyBehavesAsUse)
{
	ZvRString s;
	Releaser release(s);
	s.concat("x");
	EXPECT_STREQ("x", s.data);
	EXPECT_EQ(1u, s.length);
	ZvRString t;
	Releaser releaseT(t);
	t.use("");
	EXPECT_EQ(0u, t.length);
	t.concat("yz");
	EXPECT_STREQ("yz", t.data);
	EXPECT_EQ(2u, t.length);
}

TEST(ZvRString, ConcatOfItsOwnText)
{
	ZvRString s;
	Releaser release(s);
	s.use("ab");
	s.concat(s.data);
	EXPECT_STREQ("abab", s.data);
	EXPECT_EQ(4u, s.length);
}

TEST(ZvRString, UseOfItsOwnText)
{
	ZvRString s;
	Releaser release(s);
	s.use("hello");
	s.use(s.data + 3);
	EXPECT_STREQ("lo", s.data);
	EXPECT_EQ(2u, s.length);
}

TEST(ZvRString, SetDataKeepsEmbeddedZeros)
{
	ZvRString s;
	Releaser release(s);
	const char bytes[] = {0x61, 0x00, 0x62};
	s.setData(bytes, 3);
	EXPECT_EQ(3u, s.length);
	EXPECT_EQ(0, memcmp(s.data, "a\0b\0", 4));
	EXPECT_EQ('b', s[2]);
	char outside = 'q';
	s.cut(&outside);
	EXPECT_EQ(1u, s.length);
	EXPECT_EQ('q', outside);
	EXPECT_STREQ("a", s.data);
}

TEST(ZvRString, ConcatAfterEmbeddedZeroTakesTheTextUpToIt)
{
	ZvRString s;
	Releaser release(s);
	const char bytes[] = {0x61, 0x00, 0x62};
	s.setData(bytes, 3);
	s.concat("x");
	EXPECT_STREQ("ax", s.data);
	EXPECT_EQ(2u, s.length);
}

TEST(ZvRString, CutAtSecondByte)
{
	ZvRString s;
	Releaser release(s);
	s.use("abcd");
	s.cut(s.data + 1);
	EXPECT_STREQ("a", s.data);
	EXPECT_EQ(1u, s.length);
	s.cut(s.data);
	EXPECT_STREQ("", s.data);
	EXPECT_EQ(0u, s.length);
}

TEST(ZvRString, CutAtTheEndOrOutsideOnlyMeasures)
{
	ZvRString s;
	Releaser release(s);
	s.use("abcd");
	s.cut(s.data + 4); // the terminator is not inside [data, data + length)
	EXPECT_STREQ("abcd", s.data);
	EXPECT_EQ(4u, s.length);
	char elsewhere[4] = "xyz";
	s.cut(elsewhere);
	EXPECT_STREQ("xyz", elsewhere);
	EXPECT_EQ(4u, s.length);
}

TEST(ZvRString, CutOfEmptyObject)
{
	ZvRString s;
	char c = 'x';
	s.cut(&c);
	EXPECT_EQ(0u, s.length);
	EXPECT_EQ('x', c);
}

TEST(ZvRString, IndexPastTheEndYieldsTheSharedZero)
{
	ZvRString s;
	Releaser release(s);
	s.use("ab");
	EXPECT_EQ('a', s[0]);
	EXPECT_EQ('b', s[1]);
	EXPECT_EQ(0, s[2]);
	EXPECT_EQ(&ZvRString::mEmpty, &s[2]);
	EXPECT_EQ(&ZvRString::mEmpty, &s[0xFFFFFFFFu]);
	s[0] = 'z';
	EXPECT_STREQ("zb", s.data);
	ZvRString empty;
	EXPECT_EQ(0, empty[0]);
	EXPECT_EQ(0, empty[5]);
	EXPECT_EQ(&ZvRString::mEmpty, &empty[0]);
	const ZvRString& constant = s;
	EXPECT_EQ('z', constant[0]);
	EXPECT_EQ(&ZvRString::mEmpty, &constant[2]);
}

TEST(ZvRString, EmptyInputsLeaveTheObjectEmpty)
{
	ZvRString s;
	s.use("abc");
	s.setData("xyz", 0);
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(0u, s.length);
	s.use("abc");
	s.use(nullptr);
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(0u, s.length);
	s.setData(nullptr, 5);
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(0u, s.length);
}

TEST(ZvRString, FreeReleasesAndIsRepeatable)
{
	ZvRString s;
	s.use("abc");
	s._free();
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(0u, s.length);
	s._free();
	EXPECT_EQ(nullptr, s.data);
}

TEST(ZvRString, CopyingTheObjectSharesTheArray)
{
	ZvRString s;
	s.use("shared");
	ZvRString t = s;
	EXPECT_EQ(s.data, t.data);
	t[0] = 'S';
	EXPECT_STREQ("Shared", s.data);
	s._free();
}

TEST(ZvRString, FailedAllocationInUseKeepsTheMeasuredLength)
{
	ZvRString s;
	s.use("old");
	{
		failing::Disarm disarm;
		failing::FailAfter(0);
		s.use("abcd");
		EXPECT_TRUE(failing::Failed());
	}
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(4u, s.length);
	EXPECT_EQ(0, s[0]);
	s._free();
}

TEST(ZvRString, FailedAllocationInConcatReleasesTheOldArray)
{
	ZvRString s;
	s.use("abc");
	{
		failing::Disarm disarm;
		failing::FailAfter(0);
		s.concat("de");
		EXPECT_TRUE(failing::Failed());
	}
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(3u, s.length);
	s.concat("x");
	EXPECT_STREQ("x", s.data);
	EXPECT_EQ(1u, s.length);
	s._free();
}

TEST(ZvRString, FailedAllocationInSetDataLeavesItEmpty)
{
	ZvRString s;
	s.use("abc");
	{
		failing::Disarm disarm;
		failing::FailAfter(0);
		s.setData("xyz", 3);
		EXPECT_TRUE(failing::Failed());
	}
	EXPECT_EQ(nullptr, s.data);
	EXPECT_EQ(0u, s.length);
}
