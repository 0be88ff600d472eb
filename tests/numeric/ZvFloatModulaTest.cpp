// Tests of ZV_FloatModula: snapping to a multiple of a step with a quarter
// bias, the sign test on the value, and quotients no integer holds.
#include <ZvResize.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

TEST(ZvFloatModula, DocumentedValues)
{
	EXPECT_EQ(ZV_FloatModula(10, 4), 8.0f);
	EXPECT_EQ(ZV_FloatModula(11, 4), 12.0f);
	EXPECT_EQ(ZV_FloatModula(-11, 4), -12.0f);
	EXPECT_EQ(ZV_FloatModula(0, 5), 0.0f);
}

TEST(ZvFloatModula, RoundsAwayFromZeroOnlyFromThreeQuarters)
{
	EXPECT_EQ(ZV_FloatModula(2.7f, 1), 2.0f);
	EXPECT_EQ(ZV_FloatModula(2.75f, 1), 3.0f);
	EXPECT_EQ(ZV_FloatModula(-2.75f, 1), -3.0f);
	EXPECT_EQ(ZV_FloatModula(-2.7f, 1), -2.0f);
	EXPECT_EQ(ZV_FloatModula(2.5f, 1), 2.0f);
	EXPECT_EQ(ZV_FloatModula(0.74f, 1), 0.0f);
	EXPECT_EQ(ZV_FloatModula(7.5f, 2.5f), 7.5f);
	EXPECT_EQ(ZV_FloatModula(9.5f, 2.5f), 10.0f);
	EXPECT_EQ(ZV_FloatModula(9.2f, 2.5f), 7.5f);
}

TEST(ZvFloatModula, SignTestLooksAtTheValueNotTheQuotient)
{
	// 3 / -4 = -0.75: the value is positive, so 0.25 is added and the
	// quotient truncates to 0 (rounding the quotient itself would give -1).
	EXPECT_EQ(ZV_FloatModula(3, -4), 0.0f);
	EXPECT_EQ(ZV_FloatModula(-3, -4), 0.0f);
	EXPECT_EQ(ZV_FloatModula(5, -4), 4.0f);
	EXPECT_EQ(ZV_FloatModula(-5, -4), -4.0f);
}

TEST(ZvFloatModula, ResultIsComputedInDoubleThenRounded)
{
	// 3 * 0.1f in double, rounded once to float.
	const float step = 0.1f;
	const float expected = static_cast<float>(3.0 * static_cast<double>(step));
	EXPECT_EQ(ZV_FloatModula(0.3f, step), expected);
	EXPECT_EQ(ZV_FloatModula(1e30f, 1e-10f),
	          static_cast<float>(-9223372036854775808.0 * static_cast<double>(1e-10f)));
}

TEST(ZvFloatModula, QuotientsNoIntegerHoldsGiveTheIndefiniteValue)
{
	const float indefinite = static_cast<float>(-9223372036854775808.0);
	EXPECT_EQ(ZV_FloatModula(std::numeric_limits<float>::quiet_NaN(), 1), indefinite);
	// 1 / infinity truncates to 0, and 0 times infinity is not a number.
	EXPECT_TRUE(std::isnan(ZV_FloatModula(1, std::numeric_limits<float>::infinity())));
	// A step of 0: the product of -2^63 and 0 is -0.
	const float zeroStep = ZV_FloatModula(5, 0);
	EXPECT_EQ(zeroStep, 0.0f);
	EXPECT_TRUE(std::signbit(zeroStep));
	EXPECT_TRUE(std::signbit(ZV_FloatModula(0, 0)));
	EXPECT_EQ(ZV_FloatModula(std::numeric_limits<float>::infinity(), 1), indefinite);
}

TEST(ZvFloatModula, NegativeZeroCountsAsNotNegative)
{
	// -0 >= 0 holds: 0.25 is added, the quotient truncates to 0.
	EXPECT_EQ(ZV_FloatModula(-0.0f, 4), 0.0f);
	EXPECT_EQ(ZV_FloatModula(-0.9f, 4), 0.0f);
	EXPECT_EQ(ZV_FloatModula(-3.1f, 4), -4.0f);
}

} // namespace
