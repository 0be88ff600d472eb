// Tour section: the two-dimensional transform.
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>

namespace {

void Show(const char* what, ZvPoint<double> point)
{
	std::printf("%s = (%g, %g)\n", what, point.x, point.y);
}

void ShowTransform()
{
	ZvTransform transform;
	// Set the box first: points are normalised to it.
	transform.SetBoundingBox(ZvRect<double>{0, 0, 100, 100});
	Show("identity:    Org2Dsp(50, 50)", transform.Org2Dsp(ZvPoint<double>{50, 50}));

	transform.SetTranslation(ZvPoint<double>{10, 0});
	Show("translated:  Org2Dsp(50, 50)", transform.Org2Dsp(ZvPoint<double>{50, 50}));

	transform.Clear();
	transform.SetScaling(ZvPoint<double>{2, 2}, ZvPoint<double>{0.5, 0.5});
	Show("scaled by 2: Org2Dsp(10, 10)", transform.Org2Dsp(ZvPoint<double>{10, 10}));

	transform.Clear();
	transform.SetRotation(3.141592653589793 / 2, ZvPoint<double>{0.5, 0.5});
	Show("turned 90:   Org2Dsp(60, 50)", transform.Org2Dsp(ZvPoint<double>{60, 50}));
	const double* m = transform.RotationMatrix();
	std::printf("rotation matrix row 0 = (%g, %g, %g)\n", m[0], m[1], m[2]);
}

TourSection sSection(71, "Transform", &ShowTransform);

} // namespace
