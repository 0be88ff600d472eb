// Tests of ZV_ResizeInterpolate and ZV_Resize: the documented cases, a plain
// reference resampler (every one of the 256 samples read, no caches), exact
// box averages for integer downscales, refused arguments and concurrent use.
#include <ZvResize.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <thread>
#include <vector>

namespace {

// Source images carry the one word of slack the resampler may read.
struct Image
{
	uint32 width;
	uint32 height;
	std::vector<uint32> words;

	Image(uint32 w, uint32 h) : width(w), height(h), words(static_cast<size_t>(w) * h + 1) {}

	uint32& At(uint32 x, uint32 y) { return words[static_cast<size_t>(y) * width + x]; }
	uint32& Slack() { return words.back(); }
};

Image RandomImage(uint32 width, uint32 height, std::mt19937& random)
{
	Image image(width, height);
	for (uint32& word : image.words)
		word = random();
	return image;
}

// The resampler written out plainly from its definition: 16 x 16 sub-samples
// per destination pixel, each reading its source word through the clamps.
std::vector<uint32> Reference(const Image& src, uint32 dstWidth, uint32 dstHeight)
{
	const uint32 sw = src.width;
	const uint32 sh = src.height;
	const uint32 boxW = sw / dstWidth > 1 ? sw / dstWidth : 1;
	const uint32 boxH = sh / dstHeight > 1 ? sh / dstHeight : 1;
	const uint32 extW = boxW << 16;
	const uint32 extH = boxH << 16;
	const uint32 sx = boxW << 12;
	const uint32 sy = boxH << 12;
	const uint32 xstep = (sw << 16) / dstWidth;
	const uint32 ystep = (sh << 16) / dstHeight;
	std::vector<uint32> dst(static_cast<size_t>(dstWidth) * dstHeight);
	for (uint32 y = 0; y < dstHeight; y++) {
		const uint32 Y = y * ystep;
		for (uint32 x = 0; x < dstWidth; x++) {
			const uint32 X = x * xstep;
			uint32 total[4] = {0, 0, 0, 0};
			for (uint32 v = 0; v < extH; v += sy) {
				const uint32 rb = ((Y + v) >> 16) * sw;
				for (uint32 h = 0; h < extW; h += sx) {
					const uint32 c = (X + h) >> 16;
					uint32 index = (c < sw ? c : sw) + rb;
					if (index > sw * sh)
						index = sw * sh;
					const uint32 word = src.words[index];
					total[0] += word >> 24;
					total[1] += (word >> 16) & 0xFF;
					total[2] += (word >> 8) & 0xFF;
					total[3] += word & 0xFF;
				}
			}
			dst[static_cast<size_t>(y) * dstWidth + x] = (total[0] >> 8) << 24 |
			                                             (total[1] >> 8) << 16 |
			                                             (total[2] >> 8) << 8 | (total[3] >> 8);
		}
	}
	return dst;
}

std::vector<uint32> Resize(const Image& src, uint32 dstWidth, uint32 dstHeight)
{
	std::vector<uint32> dst(static_cast<size_t>(dstWidth) * dstHeight, 0xDEADBEEF);
	ZV_ResizeInterpolate(src.words.data(), src.width, src.height, dst.data(), dstWidth, dstHeight);
	return dst;
}

uint32 Channel(uint32 word, int shift)
{
	return (word >> shift) & 0xFF;
}

TEST(ZvResize, TwoByTwoToOneIsTheFlooredAverage)
{
	Image src(2, 2);
	src.At(0, 0) = 0x01020304;
	src.At(1, 0) = 0xFF000010;
	src.At(0, 1) = 0x80FF0020;
	src.At(1, 1) = 0x7F00FF31;
	src.Slack() = 0xFFFFFFFF;
	const std::vector<uint32> dst = Resize(src, 1, 1);
	uint32 expected = 0;
	for (int shift = 0; shift < 32; shift += 8) {
		const uint32 sum = Channel(0x01020304, shift) + Channel(0xFF000010, shift) +
		                   Channel(0x80FF0020, shift) + Channel(0x7F00FF31, shift);
		expected |= (sum / 4) << shift;
	}
	ASSERT_EQ(dst.size(), 1u);
	EXPECT_EQ(dst[0], expected);
	EXPECT_EQ(dst[0], 0x7F404019u);
}

TEST(ZvResize, EnlargingMixesInTheSlackWord)
{
	// 1 x 1 to 3 x 3: destination columns 0, 1, 2 start at source positions
	// 0, 1/3 and 2/3; of their 16 sub-samples 16, 11 and 6 stay in column 0
	// and the others read column 1, which is clamped to the slack word. Rows
	// are the same, so pixel (x, y) has weight[x] * weight[y] samples of the
	// source word and the rest from the slack.
	Image src(1, 1);
	src.At(0, 0) = 0x10203040;
	src.Slack() = 0xF0E0D0C0;
	const std::vector<uint32> dst = Resize(src, 3, 3);
	const uint32 weight[3] = {16, 11, 6};
	for (uint32 y = 0; y < 3; y++) {
		for (uint32 x = 0; x < 3; x++) {
			const uint32 own = weight[x] * weight[y];
			uint32 expected = 0;
			for (int shift = 0; shift < 32; shift += 8) {
				const uint32 sum =
				    own * Channel(0x10203040, shift) + (256 - own) * Channel(0xF0E0D0C0, shift);
				expected |= (sum >> 8) << shift;
			}
			EXPECT_EQ(dst[y * 3 + x], expected) << "at " << x << "," << y;
		}
	}
	EXPECT_EQ(dst[0], 0x10203040u);
	EXPECT_NE(dst[4], 0x10203040u);
}

TEST(ZvResize, EnlargingReadsColumnSrcWidthAsTheNextRowsFirstWord)
{
	// 2 x 2 to 3 x 2: the last destination column samples column 2 of row 0,
	// which is the first word of row 1.
	Image src(2, 2);
	src.At(0, 0) = 0x00000000;
	src.At(1, 0) = 0x00000000;
	src.At(0, 1) = 0xFFFFFFFF;
	src.At(1, 1) = 0x00000000;
	src.Slack() = 0x00000000;
	const std::vector<uint32> dst = Resize(src, 3, 2);
	EXPECT_EQ(dst, Reference(src, 3, 2));
	EXPECT_NE(dst[2], 0u);
}

TEST(ZvResize, SameSizeCopiesTheImage)
{
	std::mt19937 random(7);
	for (uint32 size : {1u, 2u, 3u, 17u, 64u}) {
		Image src = RandomImage(size, size + 5, random);
		const std::vector<uint32> dst = Resize(src, size, size + 5);
		EXPECT_TRUE(std::equal(dst.begin(), dst.end(), src.words.begin())) << size;
	}
}

TEST(ZvResize, MatchesThePlainReferenceOnRandomImagesAndSizes)
{
	std::mt19937 random(12345);
	struct Case
	{
		uint32 sw, sh, dw, dh;
	};
	const Case kFixed[] = {
	    {640, 480, 320, 240}, // halving
	    {640, 480, 213, 160}, // odd ratio down
	    {100, 100, 33, 77},   // different ratios per axis
	    {37, 23, 111, 97},    // enlarging by odd ratios
	    {50, 40, 50, 40},     // same size
	    {64, 64, 128, 32},    // up in x, down in y
	    {1, 1, 7, 5},         // one pixel up
	    {300, 20, 7, 3},      // wide box
	    {1000, 3, 31, 2},     // box wider than 16 pixels
	    {65, 65, 64, 64},     // just below 2:1
	    {3, 700, 2, 13},      // tall box
	};
	for (const Case& c : kFixed) {
		Image src = RandomImage(c.sw, c.sh, random);
		EXPECT_EQ(Resize(src, c.dw, c.dh), Reference(src, c.dw, c.dh))
		    << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh;
	}
	for (int i = 0; i < 80; i++) {
		const uint32 sw = 1 + random() % 150;
		const uint32 sh = 1 + random() % 150;
		const uint32 dw = 1 + random() % 150;
		const uint32 dh = 1 + random() % 150;
		Image src = RandomImage(sw, sh, random);
		ASSERT_EQ(Resize(src, dw, dh), Reference(src, dw, dh))
		    << sw << "x" << sh << " -> " << dw << "x" << dh;
	}
}

TEST(ZvResize, IntegerDownscalesGiveTheFlooredBoxAverage)
{
	std::mt19937 random(99);
	for (uint32 factor : {2u, 4u, 8u, 16u}) {
		const uint32 dw = 9;
		const uint32 dh = 5;
		Image src = RandomImage(dw * factor, dh * factor, random);
		const std::vector<uint32> dst = Resize(src, dw, dh);
		for (uint32 y = 0; y < dh; y++) {
			for (uint32 x = 0; x < dw; x++) {
				uint32 expected = 0;
				for (int shift = 0; shift < 32; shift += 8) {
					uint32 sum = 0;
					for (uint32 v = 0; v < factor; v++) {
						for (uint32 u = 0; u < factor; u++)
							sum += Channel(src.At(x * factor + u, y * factor + v), shift);
					}
					expected |= (sum / (factor * factor)) << shift;
				}
				ASSERT_EQ(dst[y * dw + x], expected)
				    << "factor " << factor << " at " << x << "," << y;
			}
		}
	}
}

TEST(ZvResize, DegenerateArgumentsLeaveTheDestinationAlone)
{
	Image src(4, 4);
	std::vector<uint32> dst(16, 0xABCDEF01);
	ZV_ResizeInterpolate(src.words.data(), 4, 4, dst.data(), 0, 4);
	ZV_ResizeInterpolate(src.words.data(), 4, 4, dst.data(), 4, 0);
	ZV_ResizeInterpolate(nullptr, 4, 4, dst.data(), 4, 4);
	ZV_ResizeInterpolate(src.words.data(), 4, 4, nullptr, 4, 4);
	// Beyond what 16.16 positions address.
	ZV_ResizeInterpolate(src.words.data(), 65536, 1, dst.data(), 4, 4);
	ZV_ResizeInterpolate(src.words.data(), 1, 65536, dst.data(), 4, 4);
	ZV_ResizeInterpolate(src.words.data(), 4, 4, dst.data(), 65536, 1);
	for (uint32 word : dst)
		EXPECT_EQ(word, 0xABCDEF01u);
}

TEST(ZvResize, EmptySourceReadsOnlyTheSlackWord)
{
	Image src(0, 0);
	src.Slack() = 0x11223344;
	EXPECT_EQ(Resize(src, 3, 2), std::vector<uint32>(6, 0x11223344));
	Image wide(5, 0);
	wide.Slack() = 0x55667788;
	EXPECT_EQ(Resize(wide, 2, 2), Reference(wide, 2, 2));
}

TEST(ZvResize, LargestDimensionsStayInBounds)
{
	// A 65535 x 1 row (plus its slack) scaled down and up in height.
	std::mt19937 random(5);
	Image src = RandomImage(65535, 1, random);
	EXPECT_EQ(Resize(src, 7, 3), Reference(src, 7, 3));
	Image column = RandomImage(1, 65535, random);
	EXPECT_EQ(Resize(column, 2, 5), Reference(column, 2, 5));
}

TEST(ZvResize, ResizeDoesNothing)
{
	Image src(2, 2);
	src.At(0, 0) = 0x12345678;
	std::vector<uint32> dst(4, 0x0BADF00D);
	ZV_Resize(src.words.data(), 2, 2, dst.data(), 2, 2);
	EXPECT_EQ(dst, std::vector<uint32>(4, 0x0BADF00D));
}

TEST(ZvResize, ConcurrentResizesAreIndependent)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(120), "concurrent resizes");
	const int kThreads = 4;
	std::vector<Image> sources;
	std::vector<std::vector<uint32>> expected;
	std::mt19937 random(31);
	for (int t = 0; t < kThreads; t++) {
		sources.push_back(RandomImage(90 + t * 13, 70 + t * 7, random));
		expected.push_back(Reference(sources.back(), 31 + t, 17 + 2 * t));
	}
	std::vector<int> mismatches(kThreads, 0);
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&, t] {
			for (int i = 0; i < 50; i++) {
				if (Resize(sources[t], 31 + t, 17 + 2 * t) != expected[t])
					mismatches[t]++;
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	for (int t = 0; t < kThreads; t++)
		EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

} // namespace
