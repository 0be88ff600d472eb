// ZvResize.h: the fixed-point box resampler and the float snapping helper.
//
// ZV_ResizeInterpolate scales an image of 32-bit words (row-major, four
// one-byte channels per word) with a box filter in 16.16 fixed point: every
// destination word is the average of a 16 x 16 grid of samples taken over a
// box of floor(srcWidth / dstWidth) x floor(srcHeight / dstHeight) source
// pixels (at least 1 x 1), each channel rounded down. Enlarging spreads the
// grid over one source pixel from the destination pixel's position, so it
// may sample one column past the right edge of a row (the first word of the
// next row) and, in the last row, one word past the end of the image: the
// source buffer must hold srcWidth * srcHeight + 1 words.
//
// ZV_FloatModula snaps a value to a whole multiple of a step, rounding the
// quotient away from zero only when its fraction reaches 0.75 (a quarter
// bias, not a half): with step 1, 2.7 gives 2 and 2.75 gives 3.
//
// Ownership: the caller owns every buffer; nothing is allocated or kept.
//
// Thread safety: all three functions keep no state and may run on any number
// of threads at once (on distinct destination buffers).
#ifndef _ZV_RESIZE_H
#define _ZV_RESIZE_H

#include <SupportDefs.h>

#include <ZvExport.h>

extern "C" {

// Fills dst (dstWidth * dstHeight words) from src (srcWidth * srcHeight + 1
// words). Does nothing when a buffer is null, a destination dimension is 0 or
// any dimension exceeds 65535 (the most the 16.16 positions can address).
ZV_EXPORT void ZV_ResizeInterpolate(const uint32* src, uint32 srcWidth, uint32 srcHeight,
                                    uint32* dst, uint32 dstWidth, uint32 dstHeight);

// A placeholder beside ZV_ResizeInterpolate: it does nothing.
ZV_EXPORT void ZV_Resize(const uint32* src, uint32 srcWidth, uint32 srcHeight, uint32* dst,
                         uint32 dstWidth, uint32 dstHeight);

// n * step, where n is value / step plus 0.25 (value >= 0) or minus 0.25
// (otherwise, NaN included), truncated toward zero. A quotient that no 64-bit
// integer holds (a step of 0, NaN, huge ratios) gives n = -2^63, as the x86
// conversion does.
ZV_EXPORT float ZV_FloatModula(float value, float step);

} // extern "C"

#endif // _ZV_RESIZE_H
