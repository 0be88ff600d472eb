// ZvGeometry.h: plain geometry values and the MIN/MAX helpers.
//
// ZvPoint<T> (x, y) and ZvRect<T> (left, top, right, bottom) are passed and
// stored by value. They are brace-constructible from their elements in order
// (ZvRect<float>{l, t, r, b}) and default to zero. The library uses them for
// double, float, int32 and int16 elements.
//
// MIN(a, b) gives a only when a < b, and MAX(a, b) gives a only when a > b:
// a tie, or an unordered comparison (a NaN), gives the second argument.
// They live beside the <sys/param.h> macros of the same names (see below).
//
// Ownership: plain values, nothing owned. Thread safety: none needed.
#ifndef _ZV_GEOMETRY_H
#define _ZV_GEOMETRY_H

#include <SupportDefs.h>

template <typename T> struct ZvPoint
{
	T x = 0;
	T y = 0;
};

template <typename T> struct ZvRect
{
	T left = 0;
	T top = 0;
	T right = 0;
	T bottom = 0;

	T Width() const { return right - left; }
	T Height() const { return bottom - top; }
};

// The names are in parentheses so that the MIN and MAX macros of
// <sys/param.h>, where a file included it first, do not expand here. Such a
// file still reaches the templates as MIN<T>(a, b) or (MIN)(a, b); the
// macros themselves follow the same rule.
template <typename T> inline T(MIN)(T a, T b)
{
	return a < b ? a : b;
}

template <typename T> inline T(MAX)(T a, T b)
{
	return a > b ? a : b;
}

#endif // _ZV_GEOMETRY_H
