// ZvGeometry.h in a file where <sys/param.h> has already defined MIN and MAX
// as macros: the header still compiles, the templates stay reachable (with
// explicit arguments, or with the name in parentheses), and the templates
// and the macros alike give the second argument on a tie or a NaN.
#include <sys/param.h>

#include <ZvGeometry.h>

#include <gtest/gtest.h>

#include <cmath>

#if !defined(MIN) || !defined(MAX)
#error "<sys/param.h> is expected to define MIN and MAX here"
#endif

namespace {

TEST(ZvGeometryMacroTest, TemplatesAfterTheSystemMacrosGiveTheSecondArgumentOnATie)
{
	EXPECT_EQ(2, MIN<int32>(2, 2));
	EXPECT_EQ(1, MIN<int32>(2, 1));
	EXPECT_EQ(2, MAX<int32>(1, 2));
	EXPECT_TRUE(std::signbit((MIN)(0.0f, -0.0f)));
	EXPECT_FALSE(std::signbit((MIN)(-0.0f, 0.0f)));
	EXPECT_TRUE(std::signbit((MAX)(0.0f, -0.0f)));
	EXPECT_FALSE(std::signbit((MAX)(-0.0f, 0.0f)));
}

TEST(ZvGeometryMacroTest, TemplatesAfterTheSystemMacrosGiveTheSecondArgumentForANaN)
{
	const float nan = std::nanf("");
	EXPECT_EQ(1.0f, (MIN)(nan, 1.0f));
	EXPECT_TRUE(std::isnan((MIN)(1.0f, nan)));
	EXPECT_EQ(1.0f, (MAX)(nan, 1.0f));
	EXPECT_TRUE(std::isnan((MAX)(1.0f, nan)));
}

TEST(ZvGeometryMacroTest, TheSystemMacrosFollowTheSameRule)
{
	EXPECT_TRUE(std::signbit(MIN(0.0f, -0.0f)));
	EXPECT_TRUE(std::signbit(MAX(0.0f, -0.0f)));
	EXPECT_EQ(1.0f, MIN(std::nanf(""), 1.0f));
}

} // namespace
