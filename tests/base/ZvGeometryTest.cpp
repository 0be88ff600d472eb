// The geometry values and MIN/MAX with their tie rule.
#include <ZvGeometry.h>

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(ZvGeometryTest, MinAndMaxGiveTheSecondArgumentOnATie)
{
	EXPECT_EQ(2, MIN<int32>(2, 2));
	EXPECT_EQ(2, MAX<int32>(2, 2));
	// Signed zeros compare equal, so they show which argument came back.
	EXPECT_TRUE(std::signbit(MIN(0.0f, -0.0f)));
	EXPECT_FALSE(std::signbit(MIN(-0.0f, 0.0f)));
	EXPECT_EQ(1, MIN<int32>(1, 2));
	EXPECT_EQ(1, MIN<int32>(2, 1));
	EXPECT_EQ(2, MAX<int32>(1, 2));
	EXPECT_EQ(2, MAX<int32>(2, 1));
	EXPECT_EQ(4000000000u, MAX<uint32>(4000000000u, 1u));
	EXPECT_EQ(1u, MIN<uint32>(4000000000u, 1u));
}

TEST(ZvGeometryTest, FloatMinWithNaNGivesTheSecondArgument)
{
	const float nan = std::nanf("");
	EXPECT_EQ(1.0f, MIN(nan, 1.0f));
	EXPECT_TRUE(std::isnan(MIN(1.0f, nan)));
}

TEST(ZvGeometryTest, PointsAndRectanglesAreBraceConstructedAndDefaultToZero)
{
	ZvRect<float> rect{1.0f, 2.0f, 11.0f, 22.0f};
	EXPECT_EQ(1.0f, rect.left);
	EXPECT_EQ(2.0f, rect.top);
	EXPECT_EQ(11.0f, rect.right);
	EXPECT_EQ(22.0f, rect.bottom);
	EXPECT_EQ(10.0f, rect.Width());
	EXPECT_EQ(20.0f, rect.Height());
	ZvPoint<int32> point{3, 4};
	EXPECT_EQ(3, point.x);
	EXPECT_EQ(4, point.y);
	ZvRect<int16> zero;
	EXPECT_EQ(0, zero.left + zero.top + zero.right + zero.bottom);
	ZvPoint<double> origin;
	EXPECT_EQ(0.0, origin.x);
	EXPECT_EQ(0.0, origin.y);
	static_assert(sizeof(ZvRect<double>) == 32, "four doubles");
	static_assert(sizeof(ZvPoint<int16>) == 4, "two shorts");
}

} // namespace
