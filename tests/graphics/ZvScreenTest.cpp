// Tests of ZvScreen: the whole-pixel frame of the main screen, against the X
// server of the test command (ZVKIT_TEST_DISPLAY), and the truncation of
// platform coordinates.

#include <ZvScreen.h>

#include "graphics/ScreenFrame.h"
#include "ScreenSupport.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

void ExpectFrame(const ZvRect<int32>& frame, int32 left, int32 top, int32 right, int32 bottom)
{
	EXPECT_EQ(left, frame.left);
	EXPECT_EQ(top, frame.top);
	EXPECT_EQ(right, frame.right);
	EXPECT_EQ(bottom, frame.bottom);
}

TEST(ZvScreenTest, TheFrameOfA1024By768ScreenIs0_0_1023_767)
{
	if (const char* why = zvtest::RealDisplayUnavailable())
		GTEST_SKIP() << why;
	zvtest::DisplayOverride display(zvtest::TestDisplay());
	ZvScreen screen;
	ASSERT_TRUE(screen.IsValid());
	ExpectFrame(screen.Frame(), 0, 0, 1023, 767);
	EXPECT_EQ(B_MAIN_SCREEN_ID.id, screen.ID().id);
}

TEST(ZvScreenTest, WithDisplayUnsetTheScreenIsNotValid)
{
	zvtest::DisplayOverride display(nullptr);
	ZvScreen screen;
	EXPECT_FALSE(screen.IsValid());
	ExpectFrame(screen.Frame(), 0, 0, -1, -1);
}

TEST(ZvScreenTest, AnUnreachableDisplayGivesTheInvalidFrame)
{
	zvtest::DisplayOverride display(":4242");
	ZvScreen screen;
	EXPECT_FALSE(screen.IsValid());
	ExpectFrame(screen.Frame(), 0, 0, -1, -1);
}

TEST(ZvScreenFrameTest, WholeCoordinatesAreKept)
{
	ExpectFrame(zv_truncate_frame(BRect(0.0f, 0.0f, 1023.0f, 767.0f)), 0, 0, 1023, 767);
	ExpectFrame(zv_truncate_frame(BRect()), 0, 0, -1, -1);
}

TEST(ZvScreenFrameTest, FractionsAreTruncatedTowardZeroNotRounded)
{
	ExpectFrame(zv_truncate_frame(BRect(-0.5f, 0.9f, 799.9f, -1.5f)), 0, 0, 799, -1);
	ExpectFrame(zv_truncate_frame(BRect(-799.9f, 1.5f, 2.999f, -0.999f)), -799, 1, 2, 0);
}

TEST(ZvScreenFrameTest, CoordinatesOutsideTheInt32RangeSaturate)
{
	const float nan = std::numeric_limits<float>::quiet_NaN();
	ExpectFrame(zv_truncate_frame(BRect(nan, 1e20f, -1e20f, 3.0f)), 0, 2147483647, -2147483647 - 1,
	            3);
}

} // namespace
