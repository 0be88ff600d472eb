// Tests of ZvTransform: the elementary matrices, the composites with their
// mixed layout, the point mappings, the quadrilateral, Clear, Reset after a
// new bounding box, and the NaN/infinity cases of an unset or empty box.
#include <ZvTransform.h>

#include <ZvMessage.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace {

const double kTolerance = 1e-12;
const double kPi = 3.141592653589793;

typedef ZvPoint<double> Point;
typedef ZvRect<double> Rect;

void ExpectPoint(Point actual, double x, double y)
{
	EXPECT_NEAR(actual.x, x, kTolerance);
	EXPECT_NEAR(actual.y, y, kTolerance);
}

void ExpectMatrix(const double* actual, std::initializer_list<double> expected)
{
	int i = 0;
	for (double e : expected) {
		EXPECT_NEAR(actual[i], e, kTolerance) << "element e" << i;
		i++;
	}
}

ZvTransform BoxTransform()
{
	ZvTransform transform;
	transform.SetBoundingBox(Rect{0, 0, 100, 100});
	return transform;
}

TEST(ZvTransform, DefaultsAfterSettingTheBoxMapPointsToThemselves)
{
	ZvTransform transform = BoxTransform();
	ExpectPoint(transform.Org2Dsp(Point{50, 50}), 50, 50);
	ExpectPoint(transform.Org2Dsp(Point{-20, 130}), -20, 130);
	ExpectPoint(transform.Dsp2Org(Point{50, 50}), 50, 50);
	ExpectMatrix(transform.Matrix(), {1, 0, 0, 0, 1, 0, 0, 0, 1});
	ExpectMatrix(transform.MatrixInverse(), {1, 0, 0, 0, 1, 0, 0, 0, 1});
}

TEST(ZvTransform, ConstructionStoresTheBoxButLeavesSizeZero)
{
	ZvTransform transform;
	const Rect box = transform.BoundingBox();
	EXPECT_EQ(box.left, -128);
	EXPECT_EQ(box.top, -128);
	EXPECT_EQ(box.right, 127);
	EXPECT_EQ(box.bottom, 127);
	// Origin and size are still zero: normalising divides by zero.
	EXPECT_TRUE(std::isnan(transform.TranslationMatrix()[2]));
	EXPECT_TRUE(std::isnan(transform.ShearingMatrix()[1]));
	EXPECT_TRUE(std::isnan(transform.TransformMatrix()[6]));
	const Point n = transform.Org2Nrm(Point{1, -1});
	EXPECT_TRUE(std::isinf(n.x) && n.x > 0);
	EXPECT_TRUE(std::isinf(n.y) && n.y < 0);
	EXPECT_TRUE(std::isnan(transform.Org2Nrm(Point{0, 0}).x));
	// Scaling and rotation do not normalise and hold their defaults.
	ExpectMatrix(transform.ScalingMatrix(), {1, 0, 0, 0, 1, 0, 0, 0, 1});
	ExpectMatrix(transform.RotationMatrix(), {1, 0, 0, -0.0, 1, 0, 0, 0, 1});
}

TEST(ZvTransform, TranslationIsNormalisedIntoTheRightColumn)
{
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{10, 0});
	ExpectMatrix(transform.TranslationMatrix(), {1, 0, -0.1, 0, 1, 0, 0, 0, 1});
	ExpectMatrix(transform.TranslationMatrixInverse(), {1, 0, 0.1, 0, 1, 0, 0, 0, 1});
	ExpectPoint(transform.Org2Dsp(Point{50, 50}), 40, 50);
	ExpectPoint(transform.Translation(), 10, 0);
}

TEST(ZvTransform, TranslationAndShearingAreNormalisedAsPointsOfTheBox)
{
	ZvTransform transform;
	transform.SetBoundingBox(Rect{100, 200, 300, 600});
	// With the box away from the origin even the default (0, 0) normalises
	// to (-0.5, -0.5): the default translation and shear are not neutral.
	ExpectMatrix(transform.TranslationMatrix(), {1, 0, 0.5, 0, 1, 0.5, 0, 0, 1});
	ExpectMatrix(transform.ShearingMatrix(), {1, -0.5, 0, -0.5, 1, 0, 0, 0, 1});
	transform.SetTranslation(Point{150, 300});
	// (150 - 100) / 200 and (300 - 200) / 400.
	ExpectMatrix(transform.TranslationMatrix(), {1, 0, -0.25, 0, 1, -0.25, 0, 0, 1});
	// Sh * T = [1 -.5 -.125; -.5 1 -.125; 0 0 1] applied to (0.5, 0.5).
	ExpectPoint(transform.Org2Dsp(Point{200, 400}), 125, 250);
	transform.SetShearing(Point{100, 200});
	ExpectPoint(transform.Org2Dsp(Point{200, 400}), 150, 300);
}

TEST(ZvTransform, ShearingIsNormalisedLikeAPoint)
{
	ZvTransform transform = BoxTransform();
	transform.SetShearing(Point{10, 20});
	ExpectMatrix(transform.ShearingMatrix(), {1, 0.2, 0, 0.1, 1, 0, 0, 0, 1});
	ExpectMatrix(transform.ShearingMatrixInverse(), {1, -0.2, 0, -0.1, 1, 0, 0, 0, 1});
	ExpectPoint(transform.Org2Dsp(Point{50, 50}), 60, 55);
	ExpectPoint(transform.Shearing(), 10, 20);
}

TEST(ZvTransform, ScalingDoublesNormalisedCoordinatesWhateverTheCentre)
{
	for (const Point center : {Point{0, 0}, Point{0.5, 0.5}, Point{3, -7}}) {
		ZvTransform transform = BoxTransform();
		transform.SetScaling(Point{2, 2}, center);
		ExpectPoint(transform.Org2Dsp(Point{10, 10}), 20, 20);
		ExpectPoint(transform.ScalingFactor(), 2, 2);
		ExpectPoint(transform.ScalingCenter(), center.x, center.y);
		// The centre terms stand in the bottom row.
		ExpectMatrix(transform.ScalingMatrix(),
		             {2, 0, 0, 0, 2, 0, (1 - 2) * center.x, (1 - 2) * center.y, 1});
		ExpectMatrix(transform.ScalingMatrixInverse(),
		             {0.5, 0, 0, 0, 0.5, 0, (1 - 0.5) * center.x, (1 - 0.5) * center.y, 1});
	}
}

TEST(ZvTransform, RotationMatrixElements)
{
	ZvTransform transform = BoxTransform();
	const Point center{0.25, 0.75};
	transform.SetRotation(kPi / 2, center);
	const double* m = transform.RotationMatrix();
	EXPECT_EQ(m[0], std::cos(kPi / 2));
	EXPECT_NEAR(m[0], 6.123233995736766e-17, 1e-30);
	EXPECT_EQ(m[1], 1);
	EXPECT_EQ(m[3], -1);
	EXPECT_EQ(m[4], std::cos(kPi / 2));
	EXPECT_NEAR(m[6], (1 - m[0]) * center.x + center.y, kTolerance);
	EXPECT_NEAR(m[7], (1 - m[0]) * center.y - center.x, kTolerance);
	// The inverse uses the same formulas with the negated angle.
	const double* inverse = transform.RotationMatrixInverse();
	EXPECT_EQ(inverse[1], -1);
	EXPECT_EQ(inverse[3], 1);
	EXPECT_NEAR(inverse[6], (1 - inverse[0]) * center.x - center.y, kTolerance);
	EXPECT_NEAR(inverse[7], (1 - inverse[0]) * center.y + center.x, kTolerance);
	EXPECT_EQ(transform.RotationAngle(), kPi / 2);
	ExpectPoint(transform.RotationCenter(), 0.25, 0.75);
	// Points turn about the box's origin: (0.6, 0.5) goes to (0.5, -0.6).
	ExpectPoint(transform.Org2Dsp(Point{60, 50}), 50, -60);
}

TEST(ZvTransform, Dsp2OrgUsesTheReverseProductOfTheForwardMatrices)
{
	ZvTransform transform = BoxTransform();
	transform.SetScaling(Point{2, 2}, Point{0.5, 0.5});
	transform.SetTranslation(Point{10, 0});
	// matrix = S * T: (2 * 0.5 - 0.2, 2 * 0.5).
	ExpectMatrix(transform.Matrix(), {2, 0, -0.2, 0, 2, 0, -0.5, -0.5, 1.05});
	ExpectPoint(transform.Org2Dsp(Point{50, 50}), 80, 100);
	// matrixInverse = T * S: the bottom row of S reaches the first row
	// through the translation column.
	ExpectMatrix(transform.MatrixInverse(), {2.05, 0.05, -0.1, 0, 2, 0, -0.5, -0.5, 1});
	ExpectPoint(transform.Dsp2Org(Point{50, 50}), 95, 100);
}

TEST(ZvTransform, Dsp2OrgIsNotTheInverseOfOrg2Dsp)
{
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{10, 0});
	// Both directions apply the forward translation.
	ExpectPoint(transform.Org2Dsp(Point{50, 50}), 40, 50);
	ExpectPoint(transform.Dsp2Org(Point{50, 50}), 40, 50);
}

TEST(ZvTransform, CompositeOrderIsScalingShearingTranslationRotation)
{
	ZvTransform transform = BoxTransform();
	transform.SetShearing(Point{0, 20});
	transform.SetTranslation(Point{10, 0});
	transform.SetRotation(kPi / 2, Point{0, 0});
	// Sh * T * R with Sh = [1 .2 0; 0 1 0; 0 0 1], T = [1 0 -.1; 0 1 0; 0 0 1],
	// R = [c 1 0; -1 c 0; 0 0 1] (c = cos(pi/2)).
	const double c = std::cos(kPi / 2);
	ExpectMatrix(transform.Matrix(), {c - 0.2, 1 + 0.2 * c, -0.1, -1, c, 0, 0, 0, 1});
	// R * T * Sh.
	ExpectMatrix(transform.MatrixInverse(), {c, 0.2 * c + 1, -0.1 * c, -1, -0.2 + c, 0.1, 0, 0, 1});
	ExpectPoint(transform.Org2Dsp(Point{30, 70}),
	            100 * ((c - 0.2) * 0.3 + (1 + 0.2 * c) * 0.7 - 0.1), 100 * (-0.3 + c * 0.7));
}

TEST(ZvTransform, SetTransformOfAParallelogramIsAffine)
{
	ZvTransform transform = BoxTransform();
	transform.SetTransform(Point{25, 0}, Point{125, 50}, Point{100, 150}, Point{0, 100});
	// Normalised corners (0.25, 0), (1.25, 0.5), (1, 1.5), (0, 1): the
	// opposite sides are parallel (sx = sy = 0).
	ExpectMatrix(transform.TransformMatrix(), {1, 0.5, 0, -0.25, 1, 0, 0.25, 0, 1});
	ExpectPoint(transform.TransformLeftTop(), 25, 0);
	ExpectPoint(transform.TransformRightTop(), 125, 50);
	ExpectPoint(transform.TransformRightBottom(), 100, 150);
	ExpectPoint(transform.TransformLeftBottom(), 0, 100);
}

TEST(ZvTransform, SetTransformOfAGeneralQuadrilateral)
{
	ZvTransform transform;
	transform.SetBoundingBox(Rect{100, 200, 300, 400});
	// Normalised corners (0, 0), (1, 0), (0.9, 0.7), (0, 1): sx = -0.1,
	// sy = -0.3, den = -0.6, e2 = 0.5, e5 = 1/6; e0 pairs e5 with x1 and e4
	// pairs e2 with y3.
	transform.SetTransform(Point{100, 200}, Point{300, 200}, Point{280, 340}, Point{100, 400});
	ExpectMatrix(transform.TransformMatrix(), {7.0 / 6, 0, 0.5, 0, 1.5, 1.0 / 6, 0, 0, 1});
	ExpectPoint(transform.TransformRightBottom(), 280, 340);
}

TEST(ZvTransform, SetTransformDoesNotChangeTheMappings)
{
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{10, 0});
	const Point before = transform.Org2Dsp(Point{33, 44});
	transform.SetTransform(Point{0, 0}, Point{100, 0}, Point{80, 80}, Point{0, 100});
	ExpectMatrix(transform.TransformMatrix(), {4.0 / 3, 0, 1.0 / 3, 0, 4.0 / 3, 1.0 / 3, 0, 0, 1});
	const Point after = transform.Org2Dsp(Point{33, 44});
	EXPECT_EQ(before.x, after.x);
	EXPECT_EQ(before.y, after.y);
}

TEST(ZvTransform, ResetFollowsANewBoundingBox)
{
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{10, 0});
	transform.SetShearing(Point{20, 10});
	transform.SetTransform(Point{0, 0}, Point{100, 0}, Point{100, 100}, Point{0, 100});
	EXPECT_NEAR(transform.TranslationMatrix()[2], -0.1, kTolerance);

	transform.SetBoundingBox(Rect{0, 0, 200, 50});
	// The stored values are kept and re-normalised to the new box.
	ExpectPoint(transform.Translation(), 10, 0);
	ExpectMatrix(transform.TranslationMatrix(), {1, 0, -0.05, 0, 1, 0, 0, 0, 1});
	ExpectMatrix(transform.ShearingMatrix(), {1, 0.2, 0, 0.1, 1, 0, 0, 0, 1});
	// The corners are now (0, 0), (0.5, 0), (0.5, 2), (0, 2).
	ExpectMatrix(transform.TransformMatrix(), {0.5, 0, 0, 0, 2, 0, 0, 0, 1});
	// Sh * T = [1 .2 -.05; .1 1 -.005; 0 0 1] applied to (0.5, 0.5).
	ExpectPoint(transform.Org2Dsp(Point{100, 25}), 200 * (0.5 + 0.2 * 0.5 - 0.05),
	            50 * (0.1 * 0.5 + 0.5 - 0.005));
}

TEST(ZvTransform, ResetReappliesTheSameValues)
{
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{3, 4});
	transform.SetScaling(Point{1.5, 0.5}, Point{0.1, 0.2});
	transform.SetRotation(0.3, Point{0.4, 0.6});
	std::vector<double> before(transform.Matrix(), transform.Matrix() + 9);
	transform.Reset();
	for (int i = 0; i < 9; i++)
		EXPECT_EQ(transform.Matrix()[i], before[i]);
}

TEST(ZvTransform, ClearRestoresTheDefaults)
{
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{3, 4});
	transform.SetShearing(Point{5, 6});
	transform.SetScaling(Point{2, 3}, Point{1, 1});
	transform.SetRotation(1, Point{2, 2});
	transform.SetTransform(Point{1, 2}, Point{3, 4}, Point{5, 6}, Point{7, 9});
	transform.Clear();
	ExpectPoint(transform.Translation(), 0, 0);
	ExpectPoint(transform.Shearing(), 0, 0);
	ExpectPoint(transform.ScalingFactor(), 1, 1);
	ExpectPoint(transform.ScalingCenter(), 0.5, 0.5);
	EXPECT_EQ(transform.RotationAngle(), 0);
	ExpectPoint(transform.RotationCenter(), 0.5, 0.5);
	ExpectPoint(transform.TransformLeftTop(), 0, 0);
	ExpectPoint(transform.TransformRightTop(), 1, 0);
	ExpectPoint(transform.TransformRightBottom(), 1, 1);
	ExpectPoint(transform.TransformLeftBottom(), 0, 1);
	ExpectPoint(transform.Org2Dsp(Point{12, 34}), 12, 34);
	// Clear keeps the box.
	EXPECT_EQ(transform.BoundingBox().right, 100);
}

TEST(ZvTransform, ZeroWidthBoxGivesInfinitiesAndNaN)
{
	ZvTransform transform;
	transform.SetBoundingBox(Rect{10, 10, 10, 50});
	const Point n = transform.Org2Nrm(Point{20, 30});
	EXPECT_TRUE(std::isinf(n.x));
	EXPECT_NEAR(n.y, 0.5, kTolerance);
	EXPECT_TRUE(std::isnan(transform.Org2Nrm(Point{10, 30}).x));
	EXPECT_TRUE(std::isnan(transform.Org2Dsp(Point{20, 30}).x));
	EXPECT_TRUE(std::isnan(transform.Nrm2Org(Point{std::nan(""), 0}).x));
	// An empty box in both directions.
	transform.SetBoundingBox(Rect{5, 5, 5, 5});
	// The stored translation (0, 0) normalises to (-inf, -inf).
	EXPECT_TRUE(std::isinf(transform.TranslationMatrix()[2]));
	EXPECT_TRUE(std::isnan(transform.Org2Nrm(Point{5, 5}).x));
	EXPECT_TRUE(std::isnan(transform.Org2Dsp(Point{5, 5}).y));
}

TEST(ZvTransform, NormalisationRoundTrips)
{
	ZvTransform transform;
	transform.SetBoundingBox(Rect{-40, 10, 60, 210});
	ExpectPoint(transform.Org2Nrm(Point{-40, 10}), 0, 0);
	ExpectPoint(transform.Org2Nrm(Point{60, 210}), 1, 1);
	ExpectPoint(transform.Org2Nrm(Point{10, 60}), 0.5, 0.25);
	ExpectPoint(transform.Nrm2Org(Point{0.5, 0.25}), 10, 60);
	const Point p{17.25, -3.5};
	ExpectPoint(transform.Nrm2Org(transform.Org2Nrm(p)), p.x, p.y);
}

TEST(ZvTransform, MatrixAccessorsPointIntoTheObject)
{
	ZvTransform transform = BoxTransform();
	double* translation = transform.TranslationMatrix();
	EXPECT_EQ(translation, transform.TranslationMatrix());
	transform.SetTranslation(Point{50, 25});
	EXPECT_NEAR(translation[2], -0.5, kTolerance);
	EXPECT_NEAR(translation[5], -0.25, kTolerance);
	const ZvTransform& constView = transform;
	EXPECT_EQ(constView.RotationMatrixInverse(), transform.RotationMatrixInverse());
	EXPECT_NE(transform.ScalingMatrix(), transform.ScalingMatrixInverse());
	EXPECT_NE(transform.ShearingMatrix(), transform.ShearingMatrixInverse());
}

std::vector<char> Flattened(const ZvMessage& message)
{
	std::vector<char> bytes(message.FlattenedSize());
	message.Flatten(bytes.data());
	return bytes;
}

TEST(ZvTransform, ArchiveLeavesTheMessageUnchanged)
{
	ZvMessage message(0x54455354); // "TEST"
	message.AddInt32("kept", 42);
	const std::vector<char> before = Flattened(message);
	ZvTransform transform = BoxTransform();
	transform.SetTranslation(Point{10, 0});
	transform.Archive(&message);
	EXPECT_EQ(Flattened(message), before);
	ZvMessage empty(0x4E4F4E45); // "NONE"
	transform.Archive(&empty);
	EXPECT_TRUE(empty.IsEmpty());
}

TEST(ZvTransform, ConstructingFromAMessageIgnoresIt)
{
	ZvMessage message(0x54455354); // "TEST"
	message.AddDouble("angle", 1.0);
	message.AddPoint("translation", Point{5, 5});
	const std::vector<char> before = Flattened(message);
	ZvTransform transform(&message);
	EXPECT_EQ(Flattened(message), before);
	EXPECT_EQ(transform.RotationAngle(), 0);
	ExpectPoint(transform.Translation(), 0, 0);
	EXPECT_EQ(transform.BoundingBox().left, -128);
	EXPECT_TRUE(std::isnan(transform.TranslationMatrix()[2]));
	ZvTransform fromNull(nullptr);
	EXPECT_EQ(fromNull.BoundingBox().bottom, 127);
}

} // namespace
