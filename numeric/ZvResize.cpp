// ZvResize.cpp: the 16.16 fixed-point box resampler and ZV_FloatModula.
//
// The resampler's result is defined by a 16 x 16 grid of samples per
// destination pixel: sample (j, k) reads source column (X + j * sx) >> 16 of
// source row (Y + k * sy) >> 16, and each channel of the destination is the
// sum of its 256 samples shifted right by 8. Every sample of one column or
// row reads the same word, so the sum is computed from the distinct columns
// and rows with their sample counts as weights: a destination pixel costs one
// multiply-add per distinct source word instead of 256 reads.
//
// The four channels are summed two at a time in 16-bit lanes of a 32-bit
// word (bytes 0 and 2, then bytes 1 and 3): a lane holds at most 256 * 255,
// so the lanes never carry into one another.
#include <ZvResize.h>

#include <cmath>

namespace {

const uint32 kMaxDimension = 65535;
const uint32 kEvenLanes = 0x00FF00FF;
const int32 kSamples = 16;

// The distinct source columns (or rows) sampled by one destination pixel, in
// increasing order, each with the number of samples that fall on it.
struct Taps
{
	uint32 index[kSamples];
	uint32 weight[kSamples];
	int32 count;
};

// Collects the sixteen samples position + k * step (k = 0..15) of one
// destination pixel, all in unsigned 16.16 arithmetic.
void CollectTaps(uint32 position, uint32 step, Taps* taps)
{
	int32 count = 0;
	uint32 last = position >> 16;
	uint32 weight = 0;
	uint32 sample = position;
	for (int32 k = 0; k < kSamples; k++, sample += step) {
		const uint32 index = sample >> 16;
		if (index != last) {
			taps->index[count] = last;
			taps->weight[count] = weight;
			count++;
			last = index;
			weight = 0;
		}
		weight++;
	}
	taps->index[count] = last;
	taps->weight[count] = weight;
	taps->count = count + 1;
}

// One source row as seen by the samples: a pointer to its first word, or,
// for the row just below the image, the slack word that every one of its
// samples reads (the row index is clamped to one past the last pixel).
struct RowTap
{
	const uint32* words;
	uint32 weight;
};

} // namespace

extern "C" void ZV_ResizeInterpolate(const uint32* src, uint32 srcWidth, uint32 srcHeight,
                                     uint32* dst, uint32 dstWidth, uint32 dstHeight)
{
	if (src == nullptr || dst == nullptr || dstWidth == 0 || dstHeight == 0 ||
	    srcWidth > kMaxDimension || srcHeight > kMaxDimension || dstWidth > kMaxDimension ||
	    dstHeight > kMaxDimension)
		return;

	const uint32 boxWidth = srcWidth / dstWidth > 1 ? srcWidth / dstWidth : 1;
	const uint32 boxHeight = srcHeight / dstHeight > 1 ? srcHeight / dstHeight : 1;
	// One sixteenth of the box: sixteen sub-samples span it exactly.
	const uint32 subStepX = boxWidth << 12;
	const uint32 subStepY = boxHeight << 12;
	const uint32 stepX = (srcWidth << 16) / dstWidth;
	const uint32 stepY = (srcHeight << 16) / dstHeight;

	// With every dimension below 65536 no position overflows, a sampled
	// column is at most srcWidth and a sampled row at most srcHeight. Column
	// srcWidth of row r is the first word of row r + 1, so every row above
	// srcHeight is read through a plain row pointer; row srcHeight itself is
	// clamped to the slack word.
	const uint32* const slack = src + srcWidth * srcHeight;

	Taps rows;
	Taps columns;
	RowTap rowTaps[kSamples];
	uint32 positionY = 0;
	for (uint32 y = 0; y < dstHeight; y++, positionY += stepY) {
		CollectTaps(positionY, subStepY, &rows);
		for (int32 i = 0; i < rows.count; i++) {
			rowTaps[i].words = rows.index[i] < srcHeight ? src + rows.index[i] * srcWidth : nullptr;
			rowTaps[i].weight = rows.weight[i];
		}

		uint32* out = dst + y * dstWidth;
		uint32 positionX = 0;
		for (uint32 x = 0; x < dstWidth; x++, positionX += stepX) {
			CollectTaps(positionX, subStepX, &columns);
			uint32 even = 0;
			uint32 odd = 0;
			for (int32 i = 0; i < rows.count; i++) {
				const uint32* words = rowTaps[i].words;
				uint32 rowEven = 0;
				uint32 rowOdd = 0;
				if (words != nullptr) {
					for (int32 j = 0; j < columns.count; j++) {
						const uint32 word = words[columns.index[j]];
						rowEven += (word & kEvenLanes) * columns.weight[j];
						rowOdd += ((word >> 8) & kEvenLanes) * columns.weight[j];
					}
				} else {
					rowEven = (*slack & kEvenLanes) * kSamples;
					rowOdd = ((*slack >> 8) & kEvenLanes) * kSamples;
				}
				even += rowEven * rowTaps[i].weight;
				odd += rowOdd * rowTaps[i].weight;
			}
			out[x] = (odd & 0xFF00FF00u) | ((even >> 8) & kEvenLanes);
		}
	}
}

extern "C" void ZV_Resize(const uint32*, uint32, uint32, uint32*, uint32, uint32) {}

extern "C" float ZV_FloatModula(float value, float step)
{
	const double quotient = static_cast<double>(value) / static_cast<double>(step);
	const double biased = value >= 0 ? quotient + 0.25 : quotient - 0.25;
	// Truncation toward zero; out of range (NaN included) gives the x86
	// "integer indefinite" value instead of undefined behaviour.
	int64 count = INT64_MIN;
	if (biased > -9223372036854775808.0 && biased < 9223372036854775808.0)
		count = static_cast<int64>(biased);
	return static_cast<float>(static_cast<double>(count) * static_cast<double>(step));
}
