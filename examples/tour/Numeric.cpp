// Tour section: the numeric helpers (evaluator, resampler, float snapping).
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>
#include <vector>

namespace {

void ShowNumeric()
{
	const char* const expressions[] = {"2*SIN(PI/4)+1E-3", "(1+2)*3", "2*5%3", "-2^2",
	                                   "abs(-2.7)",        "1/0"};
	for (const char* expression : expressions) {
		double value = 0;
		if (ZV_Evaluate(expression, &value) == 0)
			std::printf("ZV_Evaluate(\"%s\") = %.17g\n", expression, value);
		else
			std::printf("ZV_Evaluate(\"%s\") fails (-1)\n", expression);
	}

	// A 4 x 2 image with one word of slack, halved in both directions.
	std::vector<uint32> src = {0xFF000000, 0xFF202020, 0xFF404040, 0xFF606060, 0xFF808080,
	                           0xFFA0A0A0, 0xFFC0C0C0, 0xFFE0E0E0, 0};
	uint32 dst[2] = {0, 0};
	ZV_ResizeInterpolate(src.data(), 4, 2, dst, 2, 1);
	std::printf("ZV_ResizeInterpolate 4x2 -> 2x1: %08X %08X\n", dst[0], dst[1]);

	const float values[] = {2.7f, 2.75f, -2.7f, -2.75f};
	for (float value : values)
		std::printf("ZV_FloatModula(%.2f, 1) = %g\n", value, ZV_FloatModula(value, 1));
}

TourSection sSection(60, "Numeric helpers", &ShowNumeric);

} // namespace
