// Rect.h: the interface kit's rectangle, BRect.
//
// Four float coordinates, left, top, right and bottom, with the edges
// included: a one-pixel rectangle has left == right. The default rectangle
// is (0, 0, -1, -1), which is not valid (right < left).
//
// Thread safety: a plain value.
#ifndef _RECT_H
#define _RECT_H

#include <SupportDefs.h>

class BRect
{
public:
	float left;
	float top;
	float right;
	float bottom;

	BRect() : left(0), top(0), right(-1), bottom(-1) {}

	BRect(float l, float t, float r, float b) : left(l), top(t), right(r), bottom(b) {}

	void Set(float l, float t, float r, float b)
	{
		left = l;
		top = t;
		right = r;
		bottom = b;
	}

	// True when the rectangle encloses at least one point.
	bool IsValid() const { return left <= right && top <= bottom; }

	float Width() const { return right - left; }
	float Height() const { return bottom - top; }
	int32 IntegerWidth() const { return (int32)(right - left); }
	int32 IntegerHeight() const { return (int32)(bottom - top); }

	bool operator==(const BRect& other) const
	{
		return left == other.left && top == other.top && right == other.right &&
		       bottom == other.bottom;
	}

	bool operator!=(const BRect& other) const { return !(*this == other); }
};

#endif // _RECT_H
