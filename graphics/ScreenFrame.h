// ScreenFrame.h: conversion of a platform frame to whole pixels.
//
// Each coordinate is truncated toward zero (799.9 gives 799, -0.5 gives 0).
// Values outside the int32 range saturate and a NaN gives 0, so the
// conversion is defined for every input.
#ifndef _ZV_SCREEN_FRAME_H
#define _ZV_SCREEN_FRAME_H

#include <Rect.h>

#include <ZvGeometry.h>

#include "base/internal/NumericCast.h"

inline ZvRect<int32> zv_truncate_frame(const BRect& frame)
{
	return ZvRect<int32>{zvkit::internal::TruncateSaturatingToInt32(frame.left),
	                     zvkit::internal::TruncateSaturatingToInt32(frame.top),
	                     zvkit::internal::TruncateSaturatingToInt32(frame.right),
	                     zvkit::internal::TruncateSaturatingToInt32(frame.bottom)};
}

#endif // _ZV_SCREEN_FRAME_H
