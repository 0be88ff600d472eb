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

// A point of element type T.
template <typename T> struct ZvPoint
{
	T x = 0; // Horizontal coordinate.
	T y = 0; // Vertical coordinate.
};

// A rectangle of element type T, given by its edges (inclusive).
template <typename T> struct ZvRect
{
	T left = 0;   // Left edge.
	T top = 0;    // Top edge.
	T right = 0;  // Right edge.
	T bottom = 0; // Bottom edge.

	// right - left.
	T Width() const { return right - left; }
	// bottom - top.
	T Height() const { return bottom - top; }
};

// The smaller of a and b (b on a tie or a NaN).
// The names are in parentheses so that the MIN and MAX macros of
// <sys/param.h>, where a file included it first, do not expand here. Such a
// file still reaches the templates as MIN<T>(a, b) or (MIN)(a, b); the
// macros themselves follow the same rule.
template <typename T> inline T(MIN)(T a, T b)
{
	return a < b ? a : b;
}

// The larger of a and b (b on a tie or a NaN).
template <typename T> inline T(MAX)(T a, T b)
{
	return a > b ? a : b;
}

#endif // _ZV_GEOMETRY_H
