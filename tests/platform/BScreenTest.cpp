// Tests of the platform's interface kit: BRect, rgb_color and BScreen, the
// latter against the X server of the test command (ZVKIT_TEST_DISPLAY).

#include <GraphicsDefs.h>
#include <Rect.h>
#include <Screen.h>

#include "ScreenSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(BRectTest, TheDefaultRectangleIsNotValid)
{
	BRect rect;
	EXPECT_EQ(0.0f, rect.left);
	EXPECT_EQ(0.0f, rect.top);
	EXPECT_EQ(-1.0f, rect.right);
	EXPECT_EQ(-1.0f, rect.bottom);
	EXPECT_FALSE(rect.IsValid());
}

TEST(BRectTest, EdgesAreIncludedInWidthAndHeight)
{
	BRect rect(10, 20, 10, 29.5f);
	EXPECT_TRUE(rect.IsValid());
	EXPECT_EQ(0.0f, rect.Width());
	EXPECT_EQ(9.5f, rect.Height());
	EXPECT_EQ(9, rect.IntegerHeight());
	rect.Set(1, 2, 3, 4);
	EXPECT_EQ(BRect(1, 2, 3, 4), rect);
	EXPECT_NE(BRect(1, 2, 3, 5), rect);
}

TEST(RgbColorTest, ChannelsCompareByValue)
{
	rgb_color red = {255, 0, 0, 255};
	rgb_color same = {255, 0, 0, 255};
	rgb_color clear = {255, 0, 0, 0};
	EXPECT_EQ(red, same);
	EXPECT_NE(red, clear);
	EXPECT_EQ(4u, sizeof(rgb_color));
}

TEST(BScreenTest, TheMainScreenOfTheTestServerIsItsWholeFrame)
{
	if (const char* why = zvtest::RealDisplayUnavailable())
		GTEST_SKIP() << why;
	zvtest::DisplayOverride display(zvtest::TestDisplay());
	BScreen screen;
	ASSERT_TRUE(screen.IsValid());
	EXPECT_EQ(BRect(0, 0, 1023, 767), screen.Frame());
	EXPECT_EQ(B_MAIN_SCREEN_ID.id, screen.ID().id);
	EXPECT_EQ(B_ERROR, screen.SetToNext());
	EXPECT_EQ(BRect(0, 0, 1023, 767), screen.Frame());
}

TEST(BScreenTest, WithoutDisplayTheScreenIsNotValid)
{
	zvtest::DisplayOverride display(nullptr);
	BScreen screen(B_MAIN_SCREEN_ID);
	EXPECT_FALSE(screen.IsValid());
	EXPECT_EQ(BRect(), screen.Frame());
}

TEST(BScreenTest, AnUnreachableDisplayGivesAScreenThatIsNotValid)
{
	// No server listens on display 4242; an empty name names no display.
	for (const char* name : {":4242", ""}) {
		zvtest::DisplayOverride display(name);
		BScreen screen;
		EXPECT_FALSE(screen.IsValid()) << name;
		EXPECT_EQ(BRect(), screen.Frame()) << name;
	}
}

TEST(BScreenTest, OnlyTheMainScreenIsKnown)
{
	screen_id other = {B_MAIN_SCREEN_ID.id + 1};
	BScreen screen(other);
	EXPECT_FALSE(screen.IsValid());
	EXPECT_EQ(other.id, screen.ID().id);
}

TEST(BScreenTest, WithoutLibX11EveryScreenIsNotValid)
{
	if (zvtest::X11Loadable())
		GTEST_SKIP() << "libX11 is loadable here; the case applies to builds without it";
	if (zvtest::TestDisplay() == nullptr)
		GTEST_SKIP() << "ZVKIT_TEST_DISPLAY is not set";
	zvtest::DisplayOverride display(zvtest::TestDisplay());
	BScreen screen;
	EXPECT_FALSE(screen.IsValid());
	EXPECT_EQ(BRect(), screen.Frame());
}

} // namespace
