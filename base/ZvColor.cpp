// zv_color: one colour in the RGBA and CMYK models.
//
// Arithmetic between the rounding points is done in double precision.
// The conversions round to single precision at fixed points and truncate the
// scaled results. Values that are mathematically whole can land just below
// and lose one step (RGB 128,128,128 gives k 126); those results are the
// colour's defined behaviour, so the order of the operations below must not
// be changed.
#include <ZvColor.h>

#include <ZvGeometry.h>

namespace {

const double kScale = 255.0;

// Rounds to single precision at this point of a computation.
inline float Single(double value)
{
	return static_cast<float>(value);
}

// Toward zero, then the low eight bits. Every value handed in lies in
// [0, 255], so the conversion to int32 is defined.
inline uint8 Truncate(double value)
{
	return static_cast<uint8>(static_cast<int32>(value));
}

// The nearest level of the web palette (multiples of 51).
uint8 WebLevel(uint8 value)
{
	if (value <= 25)
		return 0;
	if (value <= 76)
		return 51;
	if (value <= 127)
		return 102;
	if (value <= 178)
		return 153;
	if (value <= 229)
		return 204;
	return 255;
}

} // namespace

zv_color::zv_color() : fR(0), fG(0), fB(0), fA(0), fC(0), fM(0), fY(0), fK(0) {}

zv_color::zv_color(uint32 argb)
{
	SetARGBPixel(argb);
}

zv_color::zv_color(const zv_color* other) : zv_color(*other) {}

zv_color::zv_color(uint8 r, uint8 g, uint8 b, uint8 a)
{
	SetRGBA(r, g, b, a);
}

zv_color::zv_color(uint8 c, uint8 m, uint8 y, uint8 k, uint8 a)
{
	SetCMYKA(c, m, y, k, a);
}

bool zv_color::operator==(const zv_color& other) const
{
	return fR == other.fR && fG == other.fG && fB == other.fB && fA == other.fA && fC == other.fC &&
	       fM == other.fM && fY == other.fY && fK == other.fK;
}

bool zv_color::operator!=(const zv_color& other) const
{
	return !(*this == other);
}

uint32 zv_color::ARGBPixel() const
{
	return (static_cast<uint32>(fA) << 24) | (static_cast<uint32>(fR) << 16) |
	       (static_cast<uint32>(fG) << 8) | static_cast<uint32>(fB);
}

void zv_color::SetARGBPixel(uint32 argb)
{
	SetRGBA(static_cast<uint8>(argb >> 16), static_cast<uint8>(argb >> 8), static_cast<uint8>(argb),
	        static_cast<uint8>(argb >> 24));
}

void zv_color::SetRGBA(uint8 r, uint8 g, uint8 b, uint8 a)
{
	fR = r;
	fG = g;
	fB = b;
	fA = a;
	RGB2CMYK();
}

void zv_color::SetCMYKA(uint8 c, uint8 m, uint8 y, uint8 k, uint8 a)
{
	fC = c;
	fM = m;
	fY = y;
	fK = k;
	fA = a;
	CMYK2RGB();
}

zv_color::zv_color(rgb_color color)
{
	SetRGBA(color);
}

void zv_color::SetRGBA(rgb_color color)
{
	SetRGBA(color.red, color.green, color.blue, color.alpha);
}

rgb_color zv_color::RGBColor() const
{
	rgb_color color;
	color.red = fR;
	color.green = fG;
	color.blue = fB;
	color.alpha = fA;
	return color;
}

void zv_color::WebSafe()
{
	fA = 255;
	fR = WebLevel(fR);
	fG = WebLevel(fG);
	fB = WebLevel(fB);
	RGB2CMYK();
}

void zv_color::RGB2CMYK()
{
	RGB2CMYK(fR, fG, fB, fC, fM, fY, fK);
}

void zv_color::CMYK2RGB()
{
	CMYK2RGB(fC, fM, fY, fK, fR, fG, fB);
}

void zv_color::RGB2CMYK(uint8 r, uint8 g, uint8 b, uint8& c, uint8& m, uint8& y, uint8& k)
{
	const float rf = Single(r / kScale);
	const float y0 = Single(1.0 - b / kScale);
	const float m0 = Single(1.0 - g / kScale);
	const float c0 = Single(1.0 - rf);
	const float black = MIN(c0, MIN(m0, y0));

	const double rest = 1.0 - black;
	if (rest == 0) {
		c = 0;
		m = 0;
		y = 0;
	} else {
		c = Truncate(kScale * ((double(c0) - black) / rest));
		m = Truncate(kScale * ((double(m0) - black) / rest));
		y = Truncate(kScale * ((double(y0) - black) / rest));
	}
	k = Truncate(kScale * black);
}

void zv_color::CMYK2RGB(uint8 c, uint8 m, uint8 y, uint8 k, uint8& r, uint8& g, uint8& b)
{
	const float kf = Single(k / kScale);
	const float ik = Single(1.0 - kf);
	const auto channel = [kf, ik](uint8 value) {
		const float mixed = Single((value / kScale) * ik + kf);
		const float t = Single(MIN(1.0f, mixed));
		return Truncate(kScale * (1.0 - t));
	};
	r = channel(c);
	g = channel(m);
	b = channel(y);
}
