// zv_color: the two models, the single-precision rounding points, packing,
// the platform colour and the web palette.
#include <ZvColor.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

struct Cmyk
{
	int c, m, y, k;
};

Cmyk CmykOf(const zv_color& color)
{
	return Cmyk{color.C(), color.M(), color.Y(), color.K()};
}

void ExpectCmyk(const Cmyk& expected, const zv_color& color)
{
	EXPECT_EQ(expected.c, color.C());
	EXPECT_EQ(expected.m, color.M());
	EXPECT_EQ(expected.y, color.Y());
	EXPECT_EQ(expected.k, color.K());
}

void ExpectRgba(int r, int g, int b, int a, const zv_color& color)
{
	EXPECT_EQ(r, color.R());
	EXPECT_EQ(g, color.G());
	EXPECT_EQ(b, color.B());
	EXPECT_EQ(a, color.A());
}

TEST(ZvColorTest, IsEightBytesInChannelOrder)
{
	static_assert(sizeof(zv_color) == 8, "eight one-byte channels");
	const zv_color color(10, 20, 30, 40);
	uint8 bytes[8];
	memcpy(bytes, &color, 8);
	EXPECT_EQ(10, bytes[0]);
	EXPECT_EQ(20, bytes[1]);
	EXPECT_EQ(30, bytes[2]);
	EXPECT_EQ(40, bytes[3]);
	EXPECT_EQ(color.C(), bytes[4]);
	EXPECT_EQ(color.M(), bytes[5]);
	EXPECT_EQ(color.Y(), bytes[6]);
	EXPECT_EQ(color.K(), bytes[7]);
}

TEST(ZvColorTest, DefaultIsAllZeroWithoutRecomputingBlack)
{
	const zv_color color;
	ExpectRgba(0, 0, 0, 0, color);
	ExpectCmyk({0, 0, 0, 0}, color);
	// The same black set through RGBA has k 255.
	EXPECT_EQ(255, zv_color(0, 0, 0, 0).K());
	EXPECT_TRUE(color != zv_color(0, 0, 0, 0));
}

TEST(ZvColorTest, PackedPixelUnpacksAndPacksBack)
{
	const zv_color color(0xFF804020u);
	ExpectRgba(128, 64, 32, 255, color);
	EXPECT_EQ(0xFF804020u, color.ARGBPixel());
	zv_color other;
	other.SetARGBPixel(0x11223344u);
	ExpectRgba(0x22, 0x33, 0x44, 0x11, other);
	EXPECT_EQ(0x11223344u, other.ARGBPixel());
	uint8 c, m, y, k;
	zv_color::RGB2CMYK(0x22, 0x33, 0x44, c, m, y, k);
	ExpectCmyk({c, m, y, k}, other);
}

TEST(ZvColorTest, PureRedIsMagentaPlusYellow)
{
	ExpectCmyk({0, 255, 255, 0}, zv_color(255, 0, 0, 255));
}

TEST(ZvColorTest, BlackAndWhite)
{
	ExpectCmyk({0, 0, 0, 255}, zv_color(0, 0, 0, 255));
	ExpectCmyk({0, 0, 0, 0}, zv_color(255, 255, 255, 255));
}

TEST(ZvColorTest, MidGreyLosesOneStepThroughSinglePrecision)
{
	ExpectCmyk({0, 0, 0, 126}, zv_color(128, 128, 128, 255));
	ExpectRgba(126, 126, 126, 255, zv_color(0, 0, 0, 128, 255));
	ExpectRgba(126, 255, 255, 255, zv_color(128, 0, 0, 0, 255));
}

TEST(ZvColorTest, OrangeConvertsToCmykAndBackUnchanged)
{
	const zv_color color(200, 100, 50, 255);
	ExpectCmyk({0, 127, 191, 54}, color);
	const zv_color back(0, 127, 191, 54, 255);
	ExpectRgba(200, 100, 50, 255, back);
}

TEST(ZvColorTest, StaticConversionsWorkOnArguments)
{
	uint8 c = 1, m = 1, y = 1, k = 1;
	zv_color::RGB2CMYK(200, 100, 50, c, m, y, k);
	EXPECT_EQ(0, c);
	EXPECT_EQ(127, m);
	EXPECT_EQ(191, y);
	EXPECT_EQ(54, k);
	uint8 r = 0, g = 0, b = 0;
	zv_color::CMYK2RGB(0, 127, 191, 54, r, g, b);
	EXPECT_EQ(200, r);
	EXPECT_EQ(100, g);
	EXPECT_EQ(50, b);
}

TEST(ZvColorTest, SetCmykaAndRgbaConstructorDisagreeOnBlack)
{
	zv_color fromCmyk;
	fromCmyk.SetCMYKA(0, 0, 0, 128, 255);
	ExpectRgba(126, 126, 126, 255, fromCmyk);
	EXPECT_EQ(128, fromCmyk.K());
	const zv_color fromRgb(126, 126, 126, 255);
	EXPECT_EQ(129, fromRgb.K());
	EXPECT_FALSE(fromCmyk == fromRgb);
	EXPECT_TRUE(fromCmyk != fromRgb);
	EXPECT_EQ(fromCmyk.ARGBPixel(), fromRgb.ARGBPixel());
}

TEST(ZvColorTest, WebSafeSnapsToTheRangesAndMakesOpaque)
{
	zv_color low(25, 26, 230, 10);
	low.WebSafe();
	ExpectRgba(0, 51, 255, 255, low);
	ExpectCmyk(CmykOf(zv_color(0, 51, 255, 255)), low);

	zv_color high(127, 128, 229, 0);
	high.WebSafe();
	ExpectRgba(102, 153, 204, 255, high);
	ExpectCmyk(CmykOf(zv_color(102, 153, 204, 255)), high);

	const int edges[][2] = {{0, 0},     {25, 0},    {26, 51},   {76, 51},   {77, 102},  {127, 102},
	                        {128, 153}, {178, 153}, {179, 204}, {229, 204}, {230, 255}, {255, 255}};
	for (const auto& edge : edges) {
		zv_color color(static_cast<uint8>(edge[0]), 0, 0, 0);
		color.WebSafe();
		EXPECT_EQ(edge[1], color.R()) << edge[0];
	}
}

TEST(ZvColorTest, CopiesTakeAllEightChannelsAsTheyAre)
{
	zv_color source;
	source.SetCMYKA(10, 20, 30, 40, 50);
	const zv_color byReference(source);
	const zv_color byPointer(&source);
	zv_color assigned(1, 2, 3, 4);
	assigned = source;
	EXPECT_TRUE(byReference == source);
	EXPECT_TRUE(byPointer == source);
	EXPECT_TRUE(assigned == source);
	ExpectCmyk({10, 20, 30, 40}, assigned);
}

TEST(ZvColorTest, EqualityLooksAtEveryChannel)
{
	const zv_color a(1, 2, 3, 4);
	zv_color b(1, 2, 3, 4);
	EXPECT_TRUE(a == b);
	EXPECT_FALSE(a != b);
	b.SetRGBA(1, 2, 3, 5);
	EXPECT_FALSE(a == b);
	EXPECT_TRUE(a != b);
}

TEST(ZvColorTest, PlatformColourConvertsBothWays)
{
	rgb_color platform;
	platform.red = 200;
	platform.green = 100;
	platform.blue = 50;
	platform.alpha = 77;
	const zv_color color(platform);
	ExpectRgba(200, 100, 50, 77, color);
	ExpectCmyk({0, 127, 191, 54}, color);
	const rgb_color back = color.RGBColor();
	EXPECT_EQ(200, back.red);
	EXPECT_EQ(100, back.green);
	EXPECT_EQ(50, back.blue);
	EXPECT_EQ(77, back.alpha);
	zv_color set;
	set.SetRGBA(platform);
	EXPECT_TRUE(set == color);
}

TEST(ZvColorTest, RecomputingOneModelFromTheOther)
{
	zv_color color(255, 0, 0, 255);
	color.CMYK2RGB();
	ExpectRgba(255, 0, 0, 255, color);
	color.RGB2CMYK();
	ExpectCmyk({0, 255, 255, 0}, color);
}

TEST(ZvColorTest, EveryGreyConvertsWithinOneStepAndKeepsTheInvariant)
{
	for (int v = 0; v < 256; v++) {
		const zv_color grey(static_cast<uint8>(v), static_cast<uint8>(v), static_cast<uint8>(v),
		                    255);
		EXPECT_EQ(0, grey.C());
		EXPECT_EQ(0, grey.M());
		EXPECT_EQ(0, grey.Y());
		EXPECT_NEAR(255 - v, grey.K(), 1) << v;
		uint8 r, g, b;
		zv_color::CMYK2RGB(grey.C(), grey.M(), grey.Y(), grey.K(), r, g, b);
		EXPECT_NEAR(v, r, 2) << v;
	}
}

} // namespace
