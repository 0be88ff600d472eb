// NumericCast.h: conversions from floating point to integers that are
// defined for every input, NaN and out-of-range values included.
//
// Thread safety: pure functions.
#ifndef _ZV_INTERNAL_NUMERIC_CAST_H
#define _ZV_INTERNAL_NUMERIC_CAST_H

#include <SupportDefs.h>

#include <stdint.h>

namespace zvkit::internal {

// Toward zero; a value no int32 holds (NaN included) gives INT32_MIN, the
// x86 "integer indefinite" value the processor's own conversion gives.
inline int32 TruncateToInt32(double value)
{
	if (!(value > -2147483649.0 && value < 2147483648.0))
		return INT32_MIN;
	return static_cast<int32>(value);
}

// Toward zero; out-of-range values saturate and a NaN gives 0.
inline int32 TruncateSaturatingToInt32(float value)
{
	if (!(value == value))
		return 0;
	if (value >= 2147483648.0f)
		return INT32_MAX;
	if (value <= -2147483648.0f)
		return INT32_MIN;
	return static_cast<int32>(value);
}

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_NUMERIC_CAST_H
