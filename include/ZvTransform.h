// ZvTransform.h: a two-dimensional transform between an org plane and a
// display plane.
//
// A ZvTransform maps points of the application's own plane (the org plane),
// framed by a bounding box, to a display plane and back. Points are first
// normalised to the box (the box's left-top is (0, 0), its right-bottom
// (1, 1)), mapped there, and brought back to org coordinates. Five elementary
// transformations are kept, each as a 3 x 3 matrix of doubles (row by row,
// elements e0..e8) with a companion matrix for the way back: translation and
// shearing (given in org coordinates and normalised to the box), scaling and
// rotation about a centre (taken as they are, in normalised coordinates), and
// the quadrilateral given by four corners (kept for the caller; the point
// mappings do not use it). Angles are in radians.
//
// The composite used by Org2Dsp is scaling * shearing * translation *
// rotation; Dsp2Org uses the same four forward matrices multiplied in the
// reverse order, which is not the exact inverse. A point maps through the top
// two rows of the composite only (no perspective division); translation lives
// in the right column (e2, e5) while the centre terms of scaling and rotation
// live in the bottom row (e6, e7), so those centres do not move points.
//
// Until SetBoundingBox is called the box's size is zero: normalisation
// divides by zero and the translation, shearing and quadrilateral matrices
// hold NaN. Set the box first; SetBoundingBox re-applies every stored setting
// to the new box (see Reset).
//
// Ownership: a ZvTransform is a plain value; the matrix accessors return
// pointers into the object, valid while it lives and until its next setter.
//
// Thread safety: none of its own; const members may run concurrently, any
// setter needs exclusive access.
#ifndef _ZV_TRANSFORM_H
#define _ZV_TRANSFORM_H

#include <ZvExport.h>
#include <ZvGeometry.h>

class ZvMessage;

// Maps an org plane framed by a bounding box to a display plane and back;
// see the file's description.
class ZV_EXPORT ZvTransform
{
public:
	// The defaults of Clear. BoundingBox() reads {-128, -128, 127, 127}, but
	// the box's size stays zero until SetBoundingBox is called.
	ZvTransform();
	// Same as the default constructor: the archive is not read.
	explicit ZvTransform(ZvMessage* archive);

	// Writes nothing: a transform has no archived form.
	void Archive(ZvMessage* archive) const;

	// Sets the box, derives origin (left, top) and size (right - left,
	// bottom - top, no +1), then Reset().
	void SetBoundingBox(ZvRect<double> box);
	// The box as given.
	ZvRect<double> BoundingBox() const;

	// Sets the translation, a point of the org plane normalised to the box
	// (so with a box away from the origin, (0, 0) is not neutral).
	void SetTranslation(ZvPoint<double> translation);
	// The translation as given.
	ZvPoint<double> Translation() const;

	// The shear values are normalised like a point of the org plane.
	void SetShearing(ZvPoint<double> shearing);
	// The shear as given.
	ZvPoint<double> Shearing() const;

	// Sets the scaling factors and centre (normalised coordinates; the
	// centre does not move points).
	void SetScaling(ZvPoint<double> factor, ZvPoint<double> center);
	// The scaling factors as given.
	ZvPoint<double> ScalingFactor() const;
	// The scaling centre as given.
	ZvPoint<double> ScalingCenter() const;

	// Sets the rotation angle (radians) and centre (normalised coordinates;
	// the centre does not move points).
	void SetRotation(double angle, ZvPoint<double> center);
	// The angle as given.
	double RotationAngle() const;
	// The rotation centre as given.
	ZvPoint<double> RotationCenter() const;

	// Maps the unit square's corners (0,0) (1,0) (1,1) (0,1) to the
	// normalised quadrilateral; the getters return the points as given.
	void SetTransform(ZvPoint<double> leftTop, ZvPoint<double> rightTop,
	                  ZvPoint<double> rightBottom, ZvPoint<double> leftBottom);
	//@{
	// One corner of the quadrilateral, as given.
	ZvPoint<double> TransformLeftTop() const;
	ZvPoint<double> TransformRightTop() const;
	ZvPoint<double> TransformRightBottom() const;
	ZvPoint<double> TransformLeftBottom() const;
	//@}

	// Maps an org point to the display plane through the composite.
	ZvPoint<double> Org2Dsp(ZvPoint<double> point) const;
	// Maps a display point back through the forward matrices in reverse
	// order (not an exact inverse).
	ZvPoint<double> Dsp2Org(ZvPoint<double> point) const;
	// Normalises an org point to the box: left-top (0, 0), right-bottom (1, 1).
	ZvPoint<double> Org2Nrm(ZvPoint<double> point) const;
	// The reverse of Org2Nrm.
	ZvPoint<double> Nrm2Org(ZvPoint<double> point) const;

	//@{
	// Clear: the defaults (no translation or shear, scaling 1 and rotation 0
	// about (0.5, 0.5), the unit square). Reset: re-applies the stored values
	// through their setters. RecalcMatrix: rebuilds both composites; every
	// setter calls it.
	void Clear();
	void Reset();
	void RecalcMatrix();
	//@}

	//@{
	// Pointers to the nine doubles of each matrix, row by row.
	double* TranslationMatrix() { return fTranslationMatrix; }
	const double* TranslationMatrix() const { return fTranslationMatrix; }
	double* TranslationMatrixInverse() { return fTranslationMatrixInverse; }
	const double* TranslationMatrixInverse() const { return fTranslationMatrixInverse; }
	double* ShearingMatrix() { return fShearingMatrix; }
	const double* ShearingMatrix() const { return fShearingMatrix; }
	double* ShearingMatrixInverse() { return fShearingMatrixInverse; }
	const double* ShearingMatrixInverse() const { return fShearingMatrixInverse; }
	double* ScalingMatrix() { return fScalingMatrix; }
	const double* ScalingMatrix() const { return fScalingMatrix; }
	double* ScalingMatrixInverse() { return fScalingMatrixInverse; }
	const double* ScalingMatrixInverse() const { return fScalingMatrixInverse; }
	double* RotationMatrix() { return fRotationMatrix; }
	const double* RotationMatrix() const { return fRotationMatrix; }
	double* RotationMatrixInverse() { return fRotationMatrixInverse; }
	const double* RotationMatrixInverse() const { return fRotationMatrixInverse; }
	//@}
	//@{
	// Read-only views of the composites and of the quadrilateral mapping.
	const double* Matrix() const { return fMatrix; }
	const double* MatrixInverse() const { return fMatrixInverse; }
	const double* TransformMatrix() const { return fTransformMatrix; }
	//@}

private:
	ZvRect<double> fBoundingBox;
	ZvPoint<double> fOrigin;
	ZvPoint<double> fSize;
	double fMatrix[9];
	double fMatrixInverse[9];
	double fRotationMatrix[9];
	double fRotationMatrixInverse[9];
	double fRotationAngle;
	ZvPoint<double> fRotationCenter;
	double fScalingMatrix[9];
	double fScalingMatrixInverse[9];
	ZvPoint<double> fScalingFactor;
	ZvPoint<double> fScalingCenter;
	double fShearingMatrix[9];
	double fShearingMatrixInverse[9];
	ZvPoint<double> fShearing;
	double fTranslationMatrix[9];
	double fTranslationMatrixInverse[9];
	ZvPoint<double> fTranslation;
	double fTransformMatrix[9];
	ZvPoint<double> fCorners[4];
};

#endif // _ZV_TRANSFORM_H
