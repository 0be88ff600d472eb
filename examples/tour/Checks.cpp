// Tour section: the checked mode. ZvKit keeps every documented behaviour,
// also the ones that lose or cut data without a word; with checks on
// (ZVKIT_CHECKS=1 in the environment, or zv_set_checks from code) each of
// them writes one "ZvKit-CHECK:" line on standard error first, and the
// result stays the same. docs/checks.md lists them all.
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>
#include <string>

namespace {

void ShowChecks()
{
	const zv_checks_mode before = zv_checks();
	zv_set_checks(ZV_CHECKS_REPORT);
	std::fflush(stdout);

	// A field name of 70 characters is kept as its first 63.
	const std::string name(70, 'x');
	ZvMessage message(1);
	message.AddInt32(name.c_str(), 7);
	int32 value = 0;
	std::printf("FindInt32 with the full name: %s\n",
	            message.FindInt32(name.c_str(), &value) ? "found" : "not found");

	// The evaluator succeeds with a value that is not a number.
	double result = 0;
	const int32 status = ZV_Evaluate("SQRT(-1)", &result);
	std::printf("ZV_Evaluate(\"SQRT(-1)\") = %d, value %g\n", status, result);
	std::fflush(stdout);

	zv_set_checks(before);
}

TourSection sSection(80, "Checked mode (reports on standard error)", &ShowChecks);

} // namespace
