// ZvTransform.cpp: the elementary matrices, their composites and the point
// mappings of ZvTransform.
#include <ZvTransform.h>

#include <cmath>
#include <cstring>

namespace {

void SetIdentity(double* m)
{
	std::memset(m, 0, 9 * sizeof(double));
	m[0] = m[4] = m[8] = 1;
}

// out = a * b, ordinary row-by-column product; out may not alias a or b.
void Multiply(const double* a, const double* b, double* out)
{
	for (int i = 0; i < 3; i++) {
		for (int j = 0; j < 3; j++) {
			out[i * 3 + j] = a[i * 3] * b[j] + a[i * 3 + 1] * b[3 + j] + a[i * 3 + 2] * b[6 + j];
		}
	}
}

// The product of four matrices, multiplied left to right.
void Multiply4(const double* a, const double* b, const double* c, const double* d, double* out)
{
	double ab[9];
	double abc[9];
	Multiply(a, b, ab);
	Multiply(ab, c, abc);
	Multiply(abc, d, out);
}

// Maps a point through the top two rows of m (no perspective division).
ZvPoint<double> Apply(const double* m, ZvPoint<double> p)
{
	return ZvPoint<double>{m[0] * p.x + m[1] * p.y + m[2], m[3] * p.x + m[4] * p.y + m[5]};
}

// Rotation by angle about center, with the centre terms in the bottom row.
void SetRotationMatrix(double* m, double angle, ZvPoint<double> center)
{
	const double c = std::cos(angle);
	const double s = std::sin(angle);
	std::memset(m, 0, 9 * sizeof(double));
	m[0] = c;
	m[1] = s;
	m[3] = -s;
	m[4] = c;
	m[6] = (1 - c) * center.x + s * center.y;
	m[7] = (1 - c) * center.y - s * center.x;
	m[8] = 1;
}

// Scaling by factor about center, with the centre terms in the bottom row.
void SetScalingMatrix(double* m, ZvPoint<double> factor, ZvPoint<double> center)
{
	std::memset(m, 0, 9 * sizeof(double));
	m[0] = factor.x;
	m[4] = factor.y;
	m[6] = (1 - factor.x) * center.x;
	m[7] = (1 - factor.y) * center.y;
	m[8] = 1;
}

} // namespace

ZvTransform::ZvTransform()
    : fBoundingBox(), fOrigin(), fSize(), fMatrix(), fMatrixInverse(), fRotationMatrix(),
      fRotationMatrixInverse(), fRotationAngle(0), fRotationCenter(), fScalingMatrix(),
      fScalingMatrixInverse(), fScalingFactor(), fScalingCenter(), fShearingMatrix(),
      fShearingMatrixInverse(), fShearing(), fTranslationMatrix(), fTranslationMatrixInverse(),
      fTranslation(), fTransformMatrix(), fCorners()
{
	// The default box is stored without deriving origin and size, which stay
	// zero until SetBoundingBox: the normalised matrices start as NaN.
	fBoundingBox = ZvRect<double>{-128, -128, 127, 127};
	Clear();
}

ZvTransform::ZvTransform(ZvMessage*) : ZvTransform() {}

void ZvTransform::Archive(ZvMessage*) const {}

void ZvTransform::SetBoundingBox(ZvRect<double> box)
{
	fBoundingBox = box;
	fOrigin = ZvPoint<double>{box.left, box.top};
	fSize = ZvPoint<double>{box.right - box.left, box.bottom - box.top};
	Reset();
}

ZvRect<double> ZvTransform::BoundingBox() const
{
	return fBoundingBox;
}

void ZvTransform::SetTranslation(ZvPoint<double> translation)
{
	fTranslation = translation;
	const ZvPoint<double> n = Org2Nrm(translation);
	SetIdentity(fTranslationMatrix);
	fTranslationMatrix[2] = -n.x;
	fTranslationMatrix[5] = -n.y;
	SetIdentity(fTranslationMatrixInverse);
	fTranslationMatrixInverse[2] = n.x;
	fTranslationMatrixInverse[5] = n.y;
	RecalcMatrix();
}

ZvPoint<double> ZvTransform::Translation() const
{
	return fTranslation;
}

void ZvTransform::SetShearing(ZvPoint<double> shearing)
{
	fShearing = shearing;
	const ZvPoint<double> n = Org2Nrm(shearing);
	SetIdentity(fShearingMatrix);
	fShearingMatrix[3] = n.x;
	fShearingMatrix[1] = n.y;
	// The negated shear, which undoes a shear along one axis only.
	SetIdentity(fShearingMatrixInverse);
	fShearingMatrixInverse[3] = -n.x;
	fShearingMatrixInverse[1] = -n.y;
	RecalcMatrix();
}

ZvPoint<double> ZvTransform::Shearing() const
{
	return fShearing;
}

void ZvTransform::SetScaling(ZvPoint<double> factor, ZvPoint<double> center)
{
	fScalingFactor = factor;
	fScalingCenter = center;
	SetScalingMatrix(fScalingMatrix, factor, center);
	SetScalingMatrix(fScalingMatrixInverse, ZvPoint<double>{1 / factor.x, 1 / factor.y}, center);
	RecalcMatrix();
}

ZvPoint<double> ZvTransform::ScalingFactor() const
{
	return fScalingFactor;
}

ZvPoint<double> ZvTransform::ScalingCenter() const
{
	return fScalingCenter;
}

void ZvTransform::SetRotation(double angle, ZvPoint<double> center)
{
	fRotationAngle = angle;
	fRotationCenter = center;
	SetRotationMatrix(fRotationMatrix, angle, center);
	SetRotationMatrix(fRotationMatrixInverse, -angle, center);
	RecalcMatrix();
}

double ZvTransform::RotationAngle() const
{
	return fRotationAngle;
}

ZvPoint<double> ZvTransform::RotationCenter() const
{
	return fRotationCenter;
}

void ZvTransform::SetTransform(ZvPoint<double> leftTop, ZvPoint<double> rightTop,
                               ZvPoint<double> rightBottom, ZvPoint<double> leftBottom)
{
	fCorners[0] = leftTop;
	fCorners[1] = rightTop;
	fCorners[2] = rightBottom;
	fCorners[3] = leftBottom;
	const ZvPoint<double> p0 = Org2Nrm(leftTop);
	const ZvPoint<double> p1 = Org2Nrm(rightTop);
	const ZvPoint<double> p2 = Org2Nrm(rightBottom);
	const ZvPoint<double> p3 = Org2Nrm(leftBottom);

	double* m = fTransformMatrix;
	const double sx = p0.x - p1.x + p2.x - p3.x;
	const double sy = p0.y - p1.y + p2.y - p3.y;
	if (sx == 0 && sy == 0) {
		// A parallelogram: an affine mapping.
		std::memset(m, 0, sizeof(fTransformMatrix));
		m[0] = p1.x - p0.x;
		m[3] = p2.x - p1.x;
		m[6] = p0.x;
		m[1] = p1.y - p0.y;
		m[4] = p2.y - p1.y;
		m[7] = p0.y;
		m[8] = 1;
	} else {
		const double dx1 = p1.x - p2.x;
		const double dy1 = p1.y - p2.y;
		const double dx2 = p3.x - p2.x;
		const double dy2 = p3.y - p2.y;
		const double den = dx1 * dy2 - dx2 * dy1;
		m[2] = (sx * dy2 - dx2 * sy) / den;
		m[5] = (sy * dx1 - sx * dy1) / den;
		// The perspective terms pair e5 with the right-top corner and e2 with
		// the left-bottom one.
		m[0] = p1.x - p0.x + p1.x * m[5];
		m[3] = p3.x - p0.x + p3.x * m[2];
		m[6] = p0.x;
		m[1] = p1.y - p0.y + p1.y * m[5];
		m[4] = p3.y - p0.y + p3.y * m[2];
		m[7] = p0.y;
		m[8] = 1;
	}
	RecalcMatrix();
}

ZvPoint<double> ZvTransform::TransformLeftTop() const
{
	return fCorners[0];
}

ZvPoint<double> ZvTransform::TransformRightTop() const
{
	return fCorners[1];
}

ZvPoint<double> ZvTransform::TransformRightBottom() const
{
	return fCorners[2];
}

ZvPoint<double> ZvTransform::TransformLeftBottom() const
{
	return fCorners[3];
}

ZvPoint<double> ZvTransform::Org2Dsp(ZvPoint<double> point) const
{
	return Nrm2Org(Apply(fMatrix, Org2Nrm(point)));
}

ZvPoint<double> ZvTransform::Dsp2Org(ZvPoint<double> point) const
{
	return Nrm2Org(Apply(fMatrixInverse, Org2Nrm(point)));
}

ZvPoint<double> ZvTransform::Org2Nrm(ZvPoint<double> point) const
{
	return ZvPoint<double>{(point.x - fOrigin.x) / fSize.x, (point.y - fOrigin.y) / fSize.y};
}

ZvPoint<double> ZvTransform::Nrm2Org(ZvPoint<double> point) const
{
	return ZvPoint<double>{point.x * fSize.x + fOrigin.x, point.y * fSize.y + fOrigin.y};
}

void ZvTransform::Clear()
{
	SetTranslation(ZvPoint<double>{0, 0});
	SetShearing(ZvPoint<double>{0, 0});
	SetScaling(ZvPoint<double>{1, 1}, ZvPoint<double>{0.5, 0.5});
	SetRotation(0, ZvPoint<double>{0.5, 0.5});
	SetTransform(ZvPoint<double>{0, 0}, ZvPoint<double>{1, 0}, ZvPoint<double>{1, 1},
	             ZvPoint<double>{0, 1});
}

void ZvTransform::Reset()
{
	SetTranslation(Translation());
	SetShearing(Shearing());
	SetScaling(ScalingFactor(), ScalingCenter());
	SetRotation(RotationAngle(), RotationCenter());
	SetTransform(TransformLeftTop(), TransformRightTop(), TransformRightBottom(),
	             TransformLeftBottom());
}

void ZvTransform::RecalcMatrix()
{
	Multiply4(fScalingMatrix, fShearingMatrix, fTranslationMatrix, fRotationMatrix, fMatrix);
	// The way back multiplies the same forward matrices in the reverse order
	// (not the elementary inverses, and not the inverse of fMatrix): Dsp2Org
	// is defined by this product.
	Multiply4(fRotationMatrix, fTranslationMatrix, fShearingMatrix, fScalingMatrix, fMatrixInverse);
}
