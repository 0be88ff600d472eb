// ScreenFrame.h: conversion of a platform frame to whole pixels.
//
// Each coordinate is truncated toward zero (799.9 gives 799, -0.5 gives 0).
// Values outside the int32 range saturate and a NaN gives 0, so the
// conversion is defined for every input.
#ifndef _ZV_SCREEN_FRAME_H
#define _ZV_SCREEN_FRAME_H

#include <Rect.h>

#include <ZvGeometry.h>

inline int32 zv_truncate_coordinate(float value)
{
	if (!(value == value))
		return 0;
	if (value >= 2147483648.0f)
		return 2147483647;
	if (value <= -2147483648.0f)
		return -2147483647 - 1;
	return static_cast<int32>(value);
}

inline ZvRect<int32> zv_truncate_frame(const BRect& frame)
{
	return ZvRect<int32>{zv_truncate_coordinate(frame.left), zv_truncate_coordinate(frame.top),
	                     zv_truncate_coordinate(frame.right), zv_truncate_coordinate(frame.bottom)};
}

#endif // _ZV_SCREEN_FRAME_H
