// ZvResize.cpp: the 16.16 fixed-point box resampler and ZV_FloatModula.
//
// The resampler's result is defined by a 16 x 16 grid of samples per
// destination pixel: sample (j, k) reads source column (X + j * sx) >> 16 of
// source row (Y + k * sy) >> 16 (through the clamps), and each channel of the
// destination is the sum of its 256 samples shifted right by 8. The samples
// that fall on one column or one row read the same words, so the sum is
// separable: with wc the number of samples on column c and wr the number on
// row r, a channel's total is the sum over c of wc * (sum over r of wr *
// byte(r, c)). The implementation computes it in two passes per destination
// row:
//  1. vertical: for every source column the destination row needs, the
//     weighted sum of its (at most 16) sampled rows, per byte, in 16-bit
//     lanes (at most 16 * 255); the loop runs over consecutive bytes and the
//     compiler turns it into vector multiply-adds;
//  2. horizontal: each destination pixel adds its (at most 16) weighted
//     column sums, all four channels at once in the 16-bit lanes of one
//     64-bit word (at most 256 * 255 per lane, so lanes never carry).
// Integer arithmetic only, no division per pixel, and every source word is
// read once per destination row that samples it.
//
// Columns are handled in chunks so that the working tables live on the stack
// (under 40 KiB): a chunk is a run of destination columns together with the
// sorted list of source columns they sample.
#include <ZvResize.h>

#include <cstring>

#include "base/internal/Checks.h"

namespace {

const uint32 kMaxDimension = 65535;
const int32 kSamples = 16;
// Source columns summed per vertical pass, and destination columns per chunk.
const int32 kColumnCapacity = 2048;
const int32 kChunkCapacity = 256;

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

// One destination column of a chunk: its taps as positions in the chunk's
// list of source columns.
struct ColumnTaps
{
	uint16 slot[kSamples];
	uint8 weight[kSamples];
	int32 count;
};

struct Chunk
{
	uint32 columns[kColumnCapacity];
	int32 columnCount;
	ColumnTaps taps[kChunkCapacity];
	int32 tapCount;
};

// Fills the chunk with destination columns from first on, as many as its
// tables hold; returns how many.
uint32 BuildChunk(uint32 first, uint32 dstWidth, uint32 stepX, uint32 subStepX, Chunk* chunk)
{
	chunk->columnCount = 0;
	chunk->tapCount = 0;
	uint32 positionX = first * stepX;
	Taps taps;
	for (uint32 x = first; x < dstWidth && chunk->tapCount < kChunkCapacity;
	     x++, positionX += stepX) {
		CollectTaps(positionX, subStepX, &taps);
		if (chunk->columnCount + taps.count > kColumnCapacity)
			break;
		ColumnTaps& column = chunk->taps[chunk->tapCount++];
		column.count = taps.count;
		for (int32 t = 0; t < taps.count; t++) {
			const uint32 c = taps.index[t];
			int32 slot = chunk->columnCount - 1;
			if (slot < 0 || chunk->columns[slot] < c) {
				slot = chunk->columnCount++;
				chunk->columns[slot] = c;
			} else {
				// Positions only grow from one destination column to the
				// next, and a pixel's columns are consecutive whenever they
				// overlap its neighbour's: c is already in the list.
				while (slot > 0 && chunk->columns[slot] > c)
					slot--;
			}
			column.slot[t] = static_cast<uint16>(slot);
			column.weight[t] = static_cast<uint8>(taps.weight[t]);
		}
	}
	return chunk->tapCount;
}

// sums[i] (+)= weight * bytes[i] over count bytes. first selects assignment.
void AddWeightedBytes(uint16* sums, const uint8* bytes, int32 count, uint16 weight, bool first)
{
	if (first) {
		for (int32 i = 0; i < count; i++)
			sums[i] = static_cast<uint16>(weight * bytes[i]);
	} else {
		for (int32 i = 0; i < count; i++)
			sums[i] = static_cast<uint16>(sums[i] + weight * bytes[i]);
	}
}

// The vertical pass: per source column of the chunk, per byte, the weighted
// sum of the sampled rows. Row index srcHeight (reached only when enlarging)
// is clamped to the slack word for every column.
void SumRows(const uint32* src, uint32 srcWidth, uint32 srcHeight, const Taps& rows,
             const Chunk& chunk, uint16* sums)
{
	const int32 count = chunk.columnCount;
	const uint32 firstColumn = chunk.columns[0];
	const bool contiguous =
	    chunk.columns[count - 1] - firstColumn + 1 == static_cast<uint32>(count);
	for (int32 i = 0; i < rows.count; i++) {
		const uint16 weight = static_cast<uint16>(rows.weight[i]);
		const bool first = i == 0;
		if (rows.index[i] >= srcHeight) {
			uint8 slack[4];
			std::memcpy(slack, src + srcWidth * srcHeight, 4);
			for (int32 k = 0; k < count; k++)
				AddWeightedBytes(sums + 4 * k, slack, 4, weight, first);
			continue;
		}
		// Column srcWidth of a row is the first word of the next row (at most
		// the slack word), so a row pointer covers every sampled column.
		const uint32* row = src + rows.index[i] * srcWidth;
		if (contiguous) {
			AddWeightedBytes(sums, reinterpret_cast<const uint8*>(row + firstColumn), 4 * count,
			                 weight, first);
		} else {
			for (int32 k = 0; k < count; k++) {
				AddWeightedBytes(sums + 4 * k,
				                 reinterpret_cast<const uint8*>(row + chunk.columns[k]), 4, weight,
				                 first);
			}
		}
	}
}

// The horizontal pass: each destination pixel's weighted column sums, four
// 16-bit lanes at once; each lane's total is the sum of 256 samples.
void SumColumns(const Chunk& chunk, const uint16* sums, uint32* out)
{
	for (int32 x = 0; x < chunk.tapCount; x++) {
		const ColumnTaps& column = chunk.taps[x];
		uint64 total = 0;
		for (int32 t = 0; t < column.count; t++) {
			uint64 lanes;
			std::memcpy(&lanes, sums + 4 * column.slot[t], sizeof(lanes));
			total += lanes * column.weight[t];
		}
		uint16 channel[4];
		std::memcpy(channel, &total, sizeof(channel));
		const uint8 bytes[4] = {
		    static_cast<uint8>(channel[0] >> 8), static_cast<uint8>(channel[1] >> 8),
		    static_cast<uint8>(channel[2] >> 8), static_cast<uint8>(channel[3] >> 8)};
		std::memcpy(out + x, bytes, sizeof(bytes));
	}
}

} // namespace

extern "C" void ZV_ResizeInterpolate(const uint32* src, uint32 srcWidth, uint32 srcHeight,
                                     uint32* dst, uint32 dstWidth, uint32 dstHeight)
{
	if (src == nullptr || dst == nullptr || dstWidth == 0 || dstHeight == 0 ||
	    srcWidth > kMaxDimension || srcHeight > kMaxDimension || dstWidth > kMaxDimension ||
	    dstHeight > kMaxDimension) {
		if (zvkit::internal::ChecksOn()) {
			zvkit::internal::CheckReport(
			    "ZV_ResizeInterpolate",
			    "%s (source %ux%u, destination %ux%u) cannot be resampled (a null buffer, a "
			    "destination side of 0 or a side over 65535); nothing is written",
			    src == nullptr || dst == nullptr ? "a null buffer" : "these sizes",
			    static_cast<unsigned>(srcWidth), static_cast<unsigned>(srcHeight),
			    static_cast<unsigned>(dstWidth), static_cast<unsigned>(dstHeight));
		}
		return;
	}

	const uint32 boxWidth = srcWidth / dstWidth > 1 ? srcWidth / dstWidth : 1;
	const uint32 boxHeight = srcHeight / dstHeight > 1 ? srcHeight / dstHeight : 1;
	// One sixteenth of the box: sixteen sub-samples span it exactly.
	const uint32 subStepX = boxWidth << 12;
	const uint32 subStepY = boxHeight << 12;
	const uint32 stepX = (srcWidth << 16) / dstWidth;
	const uint32 stepY = (srcHeight << 16) / dstHeight;
	// With every dimension below 65536 no position overflows, a sampled
	// column is at most srcWidth and a sampled row at most srcHeight.

	Chunk chunk;
	uint16 sums[4 * kColumnCapacity];
	Taps rows;
	for (uint32 first = 0; first < dstWidth;) {
		const uint32 width = BuildChunk(first, dstWidth, stepX, subStepX, &chunk);
		uint32 positionY = 0;
		for (uint32 y = 0; y < dstHeight; y++, positionY += stepY) {
			CollectTaps(positionY, subStepY, &rows);
			SumRows(src, srcWidth, srcHeight, rows, chunk, sums);
			SumColumns(chunk, sums, dst + y * dstWidth + first);
		}
		first += width;
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
