// ZvColor.h: a colour kept in the RGBA and CMYK models at once.
//
// zv_color holds eight 8-bit channels in this order: red, green, blue, alpha,
// cyan, magenta, yellow, black. Every operation that sets one model
// recomputes the other (alpha takes no part), so both stay consistent; the
// conversions round through single precision at fixed points and truncate,
// so a round trip may lose one step. The default constructor is the
// exception: all eight channels are 0 and nothing is recomputed.
//
// The object is eight bytes, trivially copyable, and is stored in a message
// field ("COLR") byte for byte.
//
// Ownership: a plain value. Thread safety: none; copy it between threads.
#ifndef _ZV_COLOR_H
#define _ZV_COLOR_H

#include <SupportDefs.h>

#include <ZvExport.h>

#include <GraphicsDefs.h>

// A colour in RGBA and CMYK at once; see the file's description.
class ZV_EXPORT zv_color
{
public:
	// All eight channels 0 (CMYK deliberately not recomputed).
	zv_color();
	// Unpacks alpha (bits 24-31), red, green, blue (bits 0-7).
	explicit zv_color(uint32 argb);
	//@{
	// A copy of *other (which must not be null) or of other.
	explicit zv_color(const zv_color* other);
	zv_color(const zv_color& other) = default;
	//@}
	// As SetRGBA(r, g, b, a).
	zv_color(uint8 r, uint8 g, uint8 b, uint8 a);
	// As SetCMYKA(c, m, y, k, a).
	zv_color(uint8 c, uint8 m, uint8 y, uint8 k, uint8 a);
	// As SetRGBA(color).
	zv_color(rgb_color color);

	// Copies all eight channels.
	zv_color& operator=(const zv_color& other) = default;
	// Equal when all eight channels are.
	bool operator==(const zv_color& other) const;
	// The negation of operator==.
	bool operator!=(const zv_color& other) const;

	// Packs alpha (bits 24-31), red, green and blue (bits 0-7).
	uint32 ARGBPixel() const;
	// Unpacks argb as the constructor does, then recomputes CMYK.
	void SetARGBPixel(uint32 argb);
	//@{
	// Sets red, green, blue and alpha, then recomputes CMYK.
	void SetRGBA(uint8 r, uint8 g, uint8 b, uint8 a);
	void SetRGBA(rgb_color color);
	//@}
	// Sets cyan, magenta, yellow, black and alpha, then recomputes RGB.
	void SetCMYKA(uint8 c, uint8 m, uint8 y, uint8 k, uint8 a);
	// Red, green, blue and alpha as the platform's rgb_color.
	rgb_color RGBColor() const;

	// Alpha 255 and red, green, blue snapped to the 216-colour web palette.
	void WebSafe();

	//@{
	// One channel's value.
	uint8 R() const { return fR; }
	uint8 G() const { return fG; }
	uint8 B() const { return fB; }
	uint8 A() const { return fA; }
	uint8 C() const { return fC; }
	uint8 M() const { return fM; }
	uint8 Y() const { return fY; }
	uint8 K() const { return fK; }
	//@}

	//@{
	// Recompute one model from the other.
	void RGB2CMYK();
	void CMYK2RGB();
	//@}

	//@{
	// The conversions themselves, on arguments.
	static void RGB2CMYK(uint8 r, uint8 g, uint8 b, uint8& c, uint8& m, uint8& y, uint8& k);
	static void CMYK2RGB(uint8 c, uint8 m, uint8 y, uint8 k, uint8& r, uint8& g, uint8& b);
	//@}

private:
	uint8 fR;
	uint8 fG;
	uint8 fB;
	uint8 fA;
	uint8 fC;
	uint8 fM;
	uint8 fY;
	uint8 fK;
};

#endif // _ZV_COLOR_H
